ksctl capture file --json -- true
