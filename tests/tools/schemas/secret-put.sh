printf secret | ksctl secret put a --json
printf secret | ksctl secret put a --replace --json
