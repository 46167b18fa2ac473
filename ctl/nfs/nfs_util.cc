#include "nfs_util.h"

#include "mox/errors.h"
#include "mox/log.h"
#include "mox/process.h"
#include "nfs.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace
{

bool is_flag_true(const char *value)
{
    return strcmp(value, "1") == 0 || strcmp(value, "y") == 0 || strcmp(value, "yes") == 0;
}

} // namespace

void nfs_exit(int code)
{
    mox_log_terminate();
    fflush(nullptr);
    // The main thread is still waiting for the loop: exit handlers could
    // tear down state the other threads use, so leave without them.
    _exit(code);
}

void nfs_fail(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    mox_vlog(0, fmt, ap);
    va_end(ap);
    nfs_exit(kNfsFailureExit);
}

int nfs_system(const char *command)
{
    // The shell runs on the loop thread, so SIGINT and SIGTERM stay pending
    // until it ends; the action stops there, before its next step.
    mox_signal_hold();
    int status = system(command);
    if (int sig = mox_signal_held()) {
        mox_log(0, "> stopped by signal %s after \"%s\"", mox_signal_name(sig), command);
        fflush(nullptr);
        mox_signal_exit(sig);
    }
    mox_signal_release();
    if (status == -1 || (status & 0x7f) != 0)
        nfs_fail("> system(\"%s\") returned %i", command, status);
    return (status >> 8) & 0xff;
}

int check_alphabet(const char *s)
{
    for (; *s != '\0'; ++s) {
        unsigned char c = static_cast<unsigned char>(*s);
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '-' || c == '.' || c == '/' || c == '_';
        if (!ok)
            return -MOX_EINVAL;
    }
    return 0;
}

bool config_getflag(mox_config *cfg)
{
    static const char kKey[] = "cluster.enable";
    const char *value = nullptr;
    int rc = mox_config_getstr(cfg, kKey, &value);
    if (rc != 0)
        nfs_fail("> Failed to find a line '%s = (1|y|yes|0|n|no)' in the config: %i (%s)", kKey, rc,
                 mox_strerror(-rc));
    return is_flag_true(value);
}
