ksctl backup b --passphrase-cost interactive <<<secret >/dev/null
ksctl restore b --vault "$PWD/copy.db" --master-key-file "$PWD/copy.key" <<<secret >/dev/null
ksctl vault check --vault "$PWD/copy.db" --master-key-file "$PWD/copy.key" --json
