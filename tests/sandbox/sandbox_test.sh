#!/bin/sh
# The rehearsal sandbox as an administrator uses it: start it, paste two of
# the commands it prints, look at the status, stop it.
#   sandbox_test.sh SOURCE_DIR BUILD_DIR
set -eu
src=$1
export BUILD_DIR=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/tarn-sandbox-test-XXXXXX")
trap '"$src/scripts/sandbox" stop "$work/sb" >/dev/null 2>&1 || :; rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

timeout 60 "$src/scripts/sandbox" start "$work/sb" >"$work/out" || fail "start: $(cat "$work/out")"
# The printed command lines, as pasted after the printed set-up line.
. "$work/sb/env"
for want in "--pull-account bob" "--enable /alice" "--check-consistency /alice"; do
    line=$(grep -F -- "$want" "$work/out" | head -n 1 | sed 's/^ *//')
    [ -n "$line" ] || fail "no printed command with $want"
    eval "timeout 60 $line" >"$work/cmd.log" 2>&1 || fail "$line: $(cat "$work/cmd.log")"
done
[ -s "$work/sb/root/var/files/bob/.info" ] || fail "the info-file pull wrote no .info"
timeout 30 "$src/scripts/sandbox" status "$work/sb" >"$work/status" || fail "status"
grep -q "^  /alice/docs/notes.txt *1 *1 *dc-b$" "$work/status" || fail "status: $(cat "$work/status")"
pid=$(cat "$work/sb/site-a.pid")
"$src/scripts/sandbox" stop "$work/sb" >/dev/null
timeout 5 sh -c "while kill -0 $pid 2>/dev/null; do sleep 0.1; done" ||
    fail "site A's simulator still runs 5 s after stop"
echo "sandbox: started, two printed commands ran, status shown, stopped"
