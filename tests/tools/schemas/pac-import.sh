(
  umask 077
  for id in "a1 7fff0008" "b2 3b9aca00"; do
    printf 'START\nPAC-Type=1\nPAC-Key=%064d\nPAC-Opaque=0a0b0c\nPAC-Info=00030004%s00050005616c696365\nA-ID=%s\nEND\n' \
      0 "${id#* }" "${id% *}"
  done | cat <(echo "wpa_supplicant EAP-FAST PAC file - version 1") - > pacs
)
ksctl pac import pacs --json || true
ksctl pac import pacs --json || true
