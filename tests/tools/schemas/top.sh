ksctl top --interval 0.01 --count 2 --json
