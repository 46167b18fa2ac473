# Sourced by the stand-ins: the state directory, the call log and the
# injected failure. Never runs cat: that is a stand-in too.
state=${TARN_NFS_STATE:?this stand-in needs TARN_NFS_STATE}

# standin_begin NAME ARGS...: logs the call, then sleeps as long as
# delay.NAME says (seconds), if present.
standin_begin()
{
    name=$1
    shift
    echo "$*" >>"$state/$name.log"
    if [ -f "$state/delay.$name" ]; then
        read -r seconds <"$state/delay.$name"
        sleep "$seconds"
    fi
}

# standin_fail_if_told NAME: exits with the injected code, if any.
standin_fail_if_told()
{
    if [ -f "$state/fail.$1" ]; then
        read -r code <"$state/fail.$1"
        echo "$1: simulated failure" >&2
        exit "${code:-1}"
    fi
}
