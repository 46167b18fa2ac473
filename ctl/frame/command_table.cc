#include "commands.h"
#include "init_dirs/init_dirs.h"
#include "logmanager/enable_logmanager.h"
#include "nfs/nfs.h"
#include "pull/pull.h"
#include "replication/replication.h"

// In the order the words are compared; the first match wins.
const tarn_command tarn_commands[] = {
    {0, "init-dirs", parse_opts_init_dirs, [](const char *) { (void)exec_init_dirs(); }},
    {1, "set-attr", parse_opts_reshape_dirs, [](const char *) { (void)exec_reshape_dirs(); }},
    {2, "upgrade-dirs", parse_opts_upgrade_dirs, [](const char *) { (void)exec_upgrade_dirs(); }},
    {3, "pull", parse_opts_pull, [](const char *) { (void)exec_pull(); }},
    {4, "nfs", set_opts_nfs, [](const char *) { (void)exec_nfs(); }},
    {5, "replication", parse_opts_replication, [](const char *) { (void)exec_replication(); }},
    {6, "enable-logmanager", parse_opts_enable_logmanager,
     [](const char *path) { (void)exec_enable_logmanager(path); }},
};

const size_t tarn_command_count = sizeof tarn_commands / sizeof tarn_commands[0];
