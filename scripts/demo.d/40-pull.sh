#!/bin/sh
# The pull command against two gateway simulators: the local gateway (the
# destination) and the gateway of another data centre (the source).
set -eu
. "$SRC_DIR/scripts/demo.d/sims.inc"
start_sim source dc-src
start_sim local dc-local --pull-on-configure
for a in alice bob carol; do
    mkdir -p "$DEMO_DIR/source/$a/backups"
    echo "archive of $a" >"$DEMO_DIR/source/$a/backups/monday.kpa"
done
mkdir -p "$DEMO_DIR/root/var/files" "$DEMO_DIR/certs" "$DEMO_DIR/local/dave"
cp "$PKI/web-ec.pem" "$DEMO_DIR/certs/tarn.pem"
cat >"$DEMO_DIR/tarn.config" <<CONF
root_dir = $DEMO_DIR/root
tarn.private_addr = $local_addr
certs.dir = $DEMO_DIR/certs
CONF
tool() { "$TOOL" -c "$DEMO_DIR/tarn.config" "$@"; }

echo '--- info-file mode: one account, renamed, the info file for the gateway service'
show tool pull --src "$source_addr" --src-cert "$PKI/web-ec.pem" \
    --pull-account alice --rename-to alice-dc2
ls -la "$DEMO_DIR/root/var/files/alice-dc2"
echo '--- .info:'
cat "$DEMO_DIR/root/var/files/alice-dc2/.info"
echo
echo '--- a second pull of the same account needs --merge-replace:'
show tool pull --src "$source_addr" --src-cert "$PKI/web-ec.pem" \
    --pull-account alice --rename-to alice-dc2

echo '--- DC trust mode: every account of the source, to the local gateway'
show tool -d 2 pull --src "$source_addr" --src-cert "$PKI/web-ec.pem" --src-dc-uid dc-src \
    --pull-all-accounts --rm-when-done
echo '--- the local gateway has pulled them (its data directory):'
(cd "$DEMO_DIR/local" && find . -type f | sort)
echo '--- its state:'
dump "$local_addr"
echo '--- the source (accounts removed after the pull, flag 5):'
dump "$source_addr"

echo '--- on-demand-only switch on the local gateway:'
show tool pull --dst-cert "$PKI/web-ec.pem" --enable-ondemand-only dave
dump "$local_addr"
