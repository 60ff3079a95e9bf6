ksctl backup b --passphrase-cost interactive --json <<<secret
