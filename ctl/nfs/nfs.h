// The "nfs" command: mounts, unmounts and reports on the NFS export that
// holds $root_dir/storage. One action per run; every failure ends the tool
// with exit status 122, every usage error with 255.
#pragma once

#include "mox/config.h"

// Records the command's argument count and vector (element 0 is "nfs") for
// exec_nfs; checks nothing. The vector is borrowed and must outlive the run.
// Called in the main thread before the loop starts.
void set_opts_nfs(int argc, char **argv);

// Scans one option of the recorded arguments and runs its action: --mount,
// --umount or --df. Returns only when the action succeeded and nothing is
// left on the command line; otherwise ends the process. Runs its shell
// commands on the calling thread and blocks it, without suspending.
int exec_nfs(void);

// 0 when every byte of `s` is an ASCII letter, a digit or one of "-./_",
// -30 otherwise. The empty string passes. Does not suspend.
int check_alphabet(const char *s);

// Reads "cluster.enable" from `cfg` as a flag: true for exactly "1", "y" or
// "yes", false for any other value. Ends the tool with status 122 when the
// key is missing. Does not suspend.
bool config_getflag(mox_config *cfg);
