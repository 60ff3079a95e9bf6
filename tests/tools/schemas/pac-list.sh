ksctl pac list --json
. "${0%/*}/three_pacs.inc"
ksctl pac import --with-expired pacs >/dev/null
ksctl pac list --json
