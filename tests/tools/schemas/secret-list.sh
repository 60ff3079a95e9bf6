ksctl secret list --json
printf hush | ksctl secret put $'wi\xfffi' --metadata ssid=attic
ksctl secret list --json
