// "--auto": the automatic replication file of this gateway, written
// through a temporary file that is synced and renamed into place.
#include "frame/tarn_ctl.h"
#include "mox/mox.h"
#include "replication/replication.h"

#include <cstring>
#include <fcntl.h>

namespace
{

// The root directory, or the end of the program with what is missing: the
// command may run without a configuration, and then there is no tree to
// configure.
const char *root_dir()
{
    if (config == nullptr)
        mox_fatal("--auto needs the gateway configuration: cannot read 'root_dir' from '%s', "
                  "which cannot be opened or parsed",
                  config_path);
    const char *root = nullptr;
    int rc = mox_config_getstr_expand(config, "root_dir", &root);
    if (rc != 0 || root == nullptr)
        mox_fatal("--auto needs the gateway configuration: cannot read 'root_dir' from '%s': %i "
                  "(%s)",
                  config_path, rc, mox_strerror(-rc));
    return root;
}

void check_persist(const char *tmp, int rc)
{
    if (rc != 0)
        mox_fatal("failed to persist '%s': %i (%s)", tmp, rc, strerror(-rc));
}

} // namespace

void replication_auto(const replication_command *rc)
{
    const char *root = root_dir();
    char *path = mox_asprintf("%s/conf.d/replication.auto", root);
    char *tmp = mox_asprintf("%s/conf.d/-replication.auto.tmp", root);
    char *content = mox_asprintf("replication.auto.enable = y\nreplication.auto.peer_addr = "
                                 "%s\nreplication.auto.peer_uid = %s\nreplication.auto.peer_cert "
                                 "= %s\n",
                                 rc->peer_addr, rc->peer_uid, rc->peer_cert);
    mox_co_file *file = nullptr;
    int err = mox_co_file_open(tmp, O_WRONLY | O_CREAT | O_TRUNC, 0600, &file);
    if (err != 0)
        mox_fatal("failed to create '%s': %i (%s)", tmp, err, strerror(-err));
    size_t len = strlen(content);
    ssize_t n = mox_co_file_write(file, content, len, 0);
    if (n < 0)
        mox_fatal("failed to write '%s': %i (%s)", tmp, static_cast<int>(n),
                  strerror(static_cast<int>(-n)));
    if (static_cast<size_t>(n) != len)
        mox_fatal("failed to write '%s': incomplete write", tmp);
    check_persist(tmp, mox_co_file_sync(file, 0));
    check_persist(tmp, mox_co_file_close(file));
    check_persist(tmp, mox_co_file_rename(tmp, path));
    mox_free(content);
    mox_free(tmp);
    mox_free(path);
}
