. "${0%/*}/three_pacs.inc"
ksctl pac import --with-expired pacs >/dev/null
ksctl pac rm 61 --json
ksctl pac rm 61 --force --json
