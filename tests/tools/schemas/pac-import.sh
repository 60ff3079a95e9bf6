. "${0%/*}/three_pacs.inc"
ksctl pac import pacs --json || true
ksctl pac import pacs --with-expired --replace --json
