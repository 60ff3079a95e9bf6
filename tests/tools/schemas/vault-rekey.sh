ksctl vault rekey --json
