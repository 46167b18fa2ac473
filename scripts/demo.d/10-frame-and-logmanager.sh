#!/bin/sh
# The usage text, then enable-logmanager on private copies of /etc/quillon
# and /etc/logmanager.d.
set -eu
ns=$BUILD_DIR/tests/support/tarn-test-ns

echo '$ quillon-tarn-ctl -h'
"$TOOL" -h || echo "(exit status $?)"

mkdir -p "$DEMO_DIR/etc-quillon" "$DEMO_DIR/etc-logmanager"
cat > "$DEMO_DIR/etc-quillon/tarn.config" <<CONF
root_dir = /srv/tarn
storage.type = local
log.level = 4
log.path = /tmp/tarn-logs
CONF
echo
echo '--- /etc/quillon/tarn.config before:'
cat "$DEMO_DIR/etc-quillon/tarn.config"
echo '$ quillon-tarn-ctl enable-logmanager'
"$ns" --bind "$DEMO_DIR/etc-quillon" /etc/quillon \
      --bind "$DEMO_DIR/etc-logmanager" /etc/logmanager.d -- "$TOOL" enable-logmanager
echo "(exit status $?)"
echo '--- /etc/quillon/tarn.config after:'
cat "$DEMO_DIR/etc-quillon/tarn.config"
echo '--- /etc/logmanager.d/tarn.conf:'
cat "$DEMO_DIR/etc-logmanager/tarn.conf"
