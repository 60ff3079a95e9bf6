ksctl secret list --json
printf secret | ksctl secret put a --metadata about >/dev/null
ksctl secret list --json
