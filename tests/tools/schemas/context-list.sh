. "${0%/*}/three_pacs.inc"
ksctl pac import --with-expired pacs >/dev/null
ksctl context list --json
