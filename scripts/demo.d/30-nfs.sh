#!/bin/sh
# The nfs command against a simulated NFS volume: stand-ins for mount,
# umount, df, the archive tool and the mount table reader are bound over the
# system paths in a private mount namespace, so nothing real is mounted.
set -eu
ns=$BUILD_DIR/tests/support/tarn-test-ns
standins=$SRC_DIR/tests/support/nfs
state=$DEMO_DIR/nfs-state
mkdir -p "$state" "$DEMO_DIR/r/storage"
cp /usr/bin/cat "$state/real-cat"
: >"$state/mounts"
cat >"$DEMO_DIR/tarn.config" <<CONF
root_dir = $DEMO_DIR/r
storage.type = nfs
storage.nfs.host = nfs-server
storage.nfs.export = /export/tarn
cluster.enable = yes
CONF
echo '--- tarn.config:'
cat "$DEMO_DIR/tarn.config"

nfs() {
    echo "\$ quillon-tarn-ctl -d 2 nfs $*"
    status=0
    TARN_NFS_STATE=$state TARN_NFS_STANDINS=$standins "$ns" \
        --bind "$standins/mount" /bin/mount --bind "$standins/umount" /bin/umount \
        --bind "$standins/df" /bin/df --bind "$standins/cat" /bin/cat \
        --bind "$standins/bundlectl" /usr/bin/bundlectl \
        -- "$TOOL" -c "$DEMO_DIR/tarn.config" -d 2 nfs "$@" 2>&1 || status=$?
    echo "(exit status $status)"
}

echo '--- mount: nothing is mounted yet, so the tool mounts, checks and makes a test archive'
nfs --mount
echo '--- the mount command the tool ran:'
cat "$state/mount.log"
echo '--- the test archive call:'
cat "$state/bundlectl.log"
echo '--- simulated /proc/mounts:'
cat "$state/mounts"
nfs --df
nfs --umount
echo '--- simulated /proc/mounts after unmounting (empty):'
cat "$state/mounts"
echo '--- df with nothing mounted is refused (status 122):'
nfs --df
