ksctl checkpoint --json
