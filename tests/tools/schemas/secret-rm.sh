printf hush | ksctl secret put wifi
ksctl secret rm wifi --json
ksctl secret rm wifi --force --json
