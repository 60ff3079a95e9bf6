ksctl status --json
printf '[service]\nport = 1\n' >> "$KS_SESSION_DIR/ksd.toml"
ksctl reload >/dev/null 2>&1 || true
ksctl status --json
