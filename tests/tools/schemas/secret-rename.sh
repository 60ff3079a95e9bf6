printf hush | ksctl secret put wifi
ksctl secret rename wifi wlan --json
