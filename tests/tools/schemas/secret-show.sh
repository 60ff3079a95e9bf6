printf secret | ksctl secret put a --metadata about >/dev/null
ksctl secret show a --json
