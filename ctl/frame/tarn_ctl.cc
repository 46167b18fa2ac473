// Entry and dispatch: global options, the configuration file, the command
// table, and the root coroutine that runs the chosen command.
#include "tarn_ctl.h"

#include "commands.h"
#include "mox/mox.h"
#include "progress.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <initializer_list>

mox_config *config = nullptr;
const char *config_path = "/etc/quillon/tarn.config";
int32_t cmd = 0;
mox_process proc;
mox_job job;

namespace
{

const char kUsage[] =
    "TARN control tool.\n"
    "SYNOPSIS: quillon-tarn-ctl <common options> command <command options>\n"
    "\n"
    "Common options:\n"
    "  -c, --config <file>         read TARN configuration from <file>\n"
    "  -d, --log-level <level>     set the logging verbosity level\n"
    "  -h, --help                  show this message\n"
    "\n"
    "Commands:\n"
    "  init-dirs encoding=M+N/X    initialise an empty hierarchy of directories for TARN\n"
    "  upgrade-dirs                create missing directories after TARN update\n"
    "  set-attr encoding=M+N/X     change storage parameters of TARN files\n"
    "  pull                        pull accounts from another DC\n"
    "  nfs                         mount/unmount NFS volume\n"
    "  replication                 replication of files to another DC\n"
    "  enable-logmanager           edit config files for logmanager\n";

const struct option kOptions[] = {
    {"help", no_argument, nullptr, 'h'},
    {"debug-level", required_argument, nullptr, 'd'},
    {"config", required_argument, nullptr, 'c'},
    {nullptr, 0, nullptr, 0},
};

[[noreturn]] void usage()
{
    fwrite(kUsage, 1, sizeof kUsage - 1, stderr);
    mox_log_terminate();
    exit(255);
}

void config_parse(const char *command_word)
{
    static const mox_bug_location loaded_twice = {"tarn-ctl", "config_parse", __LINE__};
    if (config != nullptr)
        mox_bug_at(&loaded_twice);
    config = mox_create_config();
    if (config == nullptr)
        mox_err("allocation failed", "tarn-ctl", __LINE__, "config_parse");
    FILE *f = nullptr;
    int rc = mox_config_fopen(config_path, &f);
    if (rc == 0) {
        rc = mox_parse_config_file(config, f);
        fclose(f);
        if (rc == 0)
            return;
    }
    mox_free_config(config);
    config = nullptr;
    // Replication may run against remote sites only, without a local gateway.
    if (strcmp(command_word, "replication") == 0)
        return;
    if (rc == -EINVAL)
        mox_fatal("Failed to open or parse config file '%s': not a regular file", config_path);
    if (rc == -EFBIG)
        mox_fatal("Failed to open or parse config file '%s': larger than %d MiB", config_path,
                  MOX_CONFIG_MAX_BYTES >> 20);
    mox_fatal("Failed to open or parse config file '%s'", config_path);
}

const tarn_command *find_command(const char *word)
{
    for (size_t i = 0; i < tarn_command_count; ++i) {
        if (strcmp(tarn_commands[i].word, word) == 0)
            return &tarn_commands[i];
    }
    return nullptr;
}

int32_t start_co(mox_co *, void *)
{
    const tarn_command *command = nullptr;
    for (size_t i = 0; i < tarn_command_count; ++i) {
        if (tarn_commands[i].number == cmd)
            command = &tarn_commands[i];
    }
    if (command == nullptr || cmd < 0 || cmd > 6)
        mox_bug("tarn-ctl", __LINE__, "start_co");
    command->exec(config_path);
    mox_process_terminate(&proc);
    return 0;
}

void *start(mox_job *, void *)
{
    return mox_co_create(nullptr, start_co, nullptr);
}

} // namespace

void tarn_ctl_main(int argc, char **argv)
{
    mox_malloc_debug_enable();
    mox_process_init(&proc);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGHUP, SIG_IGN);
    sigset_t blocked;
    sigemptyset(&blocked);
    for (int sig : {SIGINT, SIGTERM, SIGUSR1, SIGQUIT})
        sigaddset(&blocked, sig);
    mox_signal_block(&blocked);
    mox_signal_set_fatal_handlers();
    __mox_log_level = 7;

    int c;
    while ((c = getopt_long(argc, argv, "+hd:c:", kOptions, nullptr)) != -1) {
        switch (c) {
        case '?':
            fprintf(stderr, "Unknown option '%s'.\n", argv[optind - 1]);
            usage();
        case 'd':
            __mox_log_level = static_cast<int32_t>(strtol(optarg, nullptr, 10));
            log_level_given = true;
            break;
        case 'h':
            usage();
        case 'c':
            config_path = optarg;
            break;
        default:
            mox_bug("tarn-ctl", __LINE__, "main");
        }
    }
    if (optind >= argc) {
        fputs("No command specified.\n", stderr);
        usage();
    }
    const char *word = argv[optind];
    config_parse(word);

    opterr = 0;
    int consumed = optind;
    optind = 0;
    const tarn_command *command = find_command(word);
    if (command == nullptr) {
        fprintf(stderr, "Unknown command '%s'.\n", word);
        usage();
    }
    cmd = command->number;
    command->parse(argc - consumed, argv + consumed);

    mox_job_init(&proc, &job, start, nullptr);
    mox_job_wakeup(&job);
    if (mox_process_start(&proc, "eventloop") != 0)
        mox_fatal("can't spawn mox process");
    mox_process_wait(&proc);
    mox_log_terminate();
    exit(proc.exit_code);
}
