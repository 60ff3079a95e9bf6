. "${0%/*}/three_pacs.inc"
ksctl pac import --with-expired pacs >/dev/null
ksctl pac age-out --dry-run --json
ksctl pac age-out --json
