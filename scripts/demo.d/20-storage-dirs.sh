#!/bin/sh
# init-dirs, set-attr and upgrade-dirs on a tree in the sandbox, with the
# cluster tool stand-in in PATH. After each step the attributes that the
# stand-in holds for the eight directories are printed.
set -eu
PATH=$BUILD_DIR/sim/quillon:$PATH
export PATH
root=$DEMO_DIR/r
cat >"$DEMO_DIR/tarn.config" <<CONF
root_dir = $root
storage.type = local
CONF
echo '--- tarn.config:'
cat "$DEMO_DIR/tarn.config"

ctl() {
    echo "\$ quillon-tarn-ctl -d 2 $*"
    status=0
    "$TOOL" -c "$DEMO_DIR/tarn.config" -d 2 "$@" >"$DEMO_DIR/out" 2>&1 || status=$?
    # The time stamps only make the lines longer.
    sed -e 's/^[0-9-]* [0-9:.]* //' "$DEMO_DIR/out"
    echo "(exit status $status)"
}

show_tree() {
    echo '--- attributes held by the stand-in:'
    for d in "" storage/ var/ var/clients/ var/files/ var/hosts/ certs/ conf.d/; do
        if [ -d "$root/$d" ]; then
            printf '  %-14s %s\n' "/$d" "$(quillon -A -q get-attr "$root/$d" | tr '\n' ' ')"
        else
            printf '  %-14s (missing)\n' "/$d"
        fi
    done
}

ctl init-dirs encoding=5+2/3 tier=1
show_tree

echo
echo '# A failing cluster tool in the middle of init-dirs on a second tree:'
echo '# the directories left empty are removed again.'
cat >"$DEMO_DIR/other.config" <<CONF
root_dir = $DEMO_DIR/other
storage.type = local
CONF
echo "\$ QUILLON_SIM_FAIL='*/var/clients/ replicas=*' quillon-tarn-ctl -d 0 init-dirs encoding=2+1"
status=0
QUILLON_SIM_FAIL='*/var/clients/ replicas=*' "$TOOL" -c "$DEMO_DIR/other.config" -d 0 \
    init-dirs encoding=2+1 >"$DEMO_DIR/out" 2>&1 || status=$?
sed -e 's/^[0-9-]* [0-9:.]* //' "$DEMO_DIR/out"
echo "(exit status $status)"
[ -e "$DEMO_DIR/other" ] && echo "$DEMO_DIR/other is still there" || echo "$DEMO_DIR/other is gone"

echo
echo '# Change one attribute of the whole tree ("-R" on storage, var, certs, conf.d):'
ctl set-attr tier=2
show_tree

echo
echo '# A newer version needs var/hosts and conf.d, which are missing here; the'
echo '# root gets another chunk size directly through the cluster tool first:'
rmdir "$root/var/hosts" "$root/conf.d"
echo "\$ quillon -A -q set-attr $root chunk-size=1048576"
quillon -A -q set-attr "$root" chunk-size=1048576
ctl upgrade-dirs
show_tree
