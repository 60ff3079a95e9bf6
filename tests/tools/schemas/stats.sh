ksctl stats --json
printf secret | ksctl secret put a >/dev/null
ksctl stats --json
ksctl stats --user "$(id -u)" --json
