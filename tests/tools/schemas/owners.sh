ksctl owners --json
printf secret | ksctl secret put a >/dev/null
ksctl owners --json
