for shell in bash zsh fish; do ksctl completion $shell --json; done
