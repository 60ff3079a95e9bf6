printf hush | ksctl secret put wifi --metadata ssid=attic
ksctl secret show wifi --json
