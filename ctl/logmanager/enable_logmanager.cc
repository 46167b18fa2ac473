#include "enable_logmanager.h"

#include "mox/mox.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/wait.h>

namespace
{

const char kCommentOut[] = "sed -i /etc/quillon/tarn.config -e \"s/\\(log\\..*=\\)/#\\1/\"";
const char kServiceConf[] = "/etc/logmanager.d/tarn.conf";
const char kLogDir[] = "/var/log/quillon/tarn";

FILE *open_or_die(const char *path, const char *mode)
{
    FILE *f = fopen(path, mode);
    if (f == nullptr)
        mox_fatal("Can't open '%s': %s", path, strerror(errno));
    // Unbuffered, each formatted write is one write(2), so a full disk fails
    // the write that is checked instead of the close that is not.
    setvbuf(f, nullptr, _IONBF, 0);
    return f;
}

} // namespace

void parse_opts_enable_logmanager(int, char **) {}

int append_logging_params(const char *path)
{
    FILE *f = open_or_die(path, "ae");
    static const char *const lines[][2] = {
        {"log.path = %s\n", kLogDir},
        {"log.filename_prefix = %s\n", "tarn"},
        {"log.compression = %s\n", "zst"},
        {"log.max_file_size = %s\n", "200M"},
    };
    for (const auto &line : lines) {
        if (fprintf(f, line[0], line[1]) < 0)
            mox_fatal("Can't write to '%s': %s", path, strerror(errno));
    }
    return fclose(f);
}

int write_logmanager_service_conf(void)
{
    FILE *f = open_or_die(kServiceConf, "we");
    if (fprintf(f, "path: \"%s\"\n", kLogDir) < 0)
        mox_fatal("Can't write to '%s': %s", kServiceConf, strerror(errno));
    return fclose(f);
}

int exec_enable_logmanager(const char *config_path)
{
    // A signal waits for the end of the command: its file steps after sed are
    // quick, and stopping between them would leave the log settings
    // commented out with nothing in their place.
    mox_signal_hold();
    mox_loop *back = mox_co_migrate_to_thread(mox_process_worker(mox_current_process()));
    int status = system(kCommentOut);
    // A failing sed (say, no such file) is fine: only a shell that did not
    // run or was killed stops the command.
    if (status == -1 || (status & 0x7f) != 0)
        mox_fatal("system(\"%s\") returned %i", kCommentOut, status);
    append_logging_params(config_path);
    write_logmanager_service_conf();
    int rc = mox_co_migrate_from_thread(back);
    if (int sig = mox_signal_held())
        mox_signal_exit(sig);
    mox_signal_release();
    return rc;
}
