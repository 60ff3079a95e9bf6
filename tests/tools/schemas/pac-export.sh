. "${0%/*}/three_pacs.inc"
ksctl pac import --with-expired pacs >/dev/null
ksctl pac export exported --json
ksctl pac export exported --form binary --replace --json
