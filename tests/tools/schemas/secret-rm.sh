printf secret | ksctl secret put a --metadata about >/dev/null
ksctl secret rm a --json
ksctl secret rm a --force --json
