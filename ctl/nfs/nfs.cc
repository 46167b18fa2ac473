#include "nfs.h"

#include "mox/mox.h"
#include "nfs_actions.h"
#include "nfs_util.h"

#include <cstdio>
#include <getopt.h>

namespace
{

int nfs_argc;
char **nfs_argv;

const char kUsage[] = "Mount/umount NFS volume.\n"
                      "Options:\n"
                      "      --df                    report NFS volume space usage\n"
                      "      --mount                 mount NFS volume\n"
                      "      --umount                unmount NFS volume\n"
                      "Other options:\n"
                      "  -h, --help                  print this message\n";

const option kOptions[] = {
    {"help", no_argument, nullptr, 'h'},
    {"mount", no_argument, nullptr, 0},
    {"umount", no_argument, nullptr, 1},
    {"df", no_argument, nullptr, 2},
    {nullptr, 0, nullptr, 0},
};

MOX_NORETURN void usage()
{
    fwrite(kUsage, 1, sizeof kUsage - 1, stderr);
    nfs_exit(kNfsUsageExit);
}

} // namespace

void set_opts_nfs(int argc, char **argv)
{
    nfs_argc = argc;
    nfs_argv = argv;
}

int exec_nfs(void)
{
    // main has reset the scanner and silenced its own messages.
    switch (getopt_long(nfs_argc, nfs_argv, "+h", kOptions, nullptr)) {
    case -1:
        fputs("Option is expected.\n", stderr);
        usage();
    case '?':
        fprintf(stderr, "Unknown option '%s'.\n", nfs_argv[optind - 1]);
        usage();
    case 'h':
        usage();
    case 0:
        nfs_mount();
        break;
    case 1:
        umount();
        break;
    case 2:
        nfs_df();
        break;
    default:
        mox_bug("tarn-ctl-nfs", __LINE__, "exec_nfs");
    }
    // Only one option is scanned: whatever follows it is left over, and
    // the action has already happened.
    if (optind < nfs_argc) {
        fprintf(stderr, "Can't parse '%s' as an argument.\n", nfs_argv[optind]);
        usage();
    }
    return 0;
}
