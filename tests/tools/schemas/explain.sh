ksctl explain 12 --json
ksctl explain --json
ksctl explain --page --json
