ksctl limits --json
