printf secret | ksctl secret put a --metadata about >/dev/null
ksctl secret rename a b --json
