ksctl doctor --config "$KS_SESSION_DIR/ksd.toml" --json || true
ksctl doctor --socket /nowhere/socket --json || true
