printf hush | ksctl secret put wifi --metadata ssid=attic --json
printf hush | ksctl secret put wifi --replace --json
