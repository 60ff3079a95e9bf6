ksctl reload --json
printf '[service]\nport = 1\n' >> "$KS_SESSION_DIR/ksd.toml"
ksctl reload --json || true
