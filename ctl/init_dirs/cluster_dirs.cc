// The gateway's directory tree on the storage cluster: creating its eight
// directories and setting their attributes through the cluster tool.
#include "init_dirs.h"
#include "mox/mox.h"
#include "shell_word.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/wait.h>

using namespace init_dirs_state;

namespace
{

struct dir_entry {
    char *path;           // owned
    bool encoded;         // gets the erasure-coding attribute; else replicated
    bool recursive;       // "-R" when only reconfiguring
    char *word = nullptr; // owned: the path as one shell word for the commands
};

const int kDirCount = 8;

struct dir_table {
    dir_entry e[kDirCount];
};

void build_table(dir_table *t, const char *root)
{
    t->e[0] = {mox_strdup(root), true, false};
    t->e[1] = {mox_asprintf("%s/storage/", root), true, true};
    t->e[2] = {mox_asprintf("%s/var/", root), false, true};
    t->e[3] = {mox_asprintf("%s/var/clients/", root), false, false};
    t->e[4] = {mox_asprintf("%s/var/files/", root), false, false};
    t->e[5] = {mox_asprintf("%s/var/hosts/", root), false, false};
    t->e[6] = {mox_asprintf("%s/certs/", root), false, true};
    t->e[7] = {mox_asprintf("%s/conf.d/", root), false, true};
    for (dir_entry &d : t->e)
        d.word = shell_word(d.path);
}

void free_table(dir_table *t)
{
    for (dir_entry &d : t->e) {
        mox_free(d.path);
        mox_free(d.word);
    }
}

// Success only for a shell that ended normally with exit code 0.
bool command_ok(int status)
{
    return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

mox_loop *to_worker()
{
    return mox_co_migrate_to_thread(mox_process_worker(mox_current_process()));
}

// True once SIGINT or SIGTERM arrived: no further program is started.
bool stopping()
{
    return mox_signal_held() != 0;
}

// Logs and runs one set-attr command, which it frees. Runs on the worker.
bool run_set(const char *path, char *command)
{
    if (stopping()) {
        mox_free(command);
        return false;
    }
    mox_log(2, "setting attributes of '%s': %s", path, command);
    bool ok = command_ok(system(command));
    mox_free(command);
    return ok;
}

// The erasure-coding attribute (encoded) or the replica attributes; -30 when
// a command fails.
int set_redundancy(const dir_entry &d, const char *flag, int32_t m, int32_t n, int32_t x, bool nfs)
{
    bool ok;
    mox_loop *back = to_worker();
    if (d.encoded && x >= 0) {
        ok = run_set(d.path, mox_asprintf("quillon -q set-attr %s %s encoding=%i+%i/%i 2>/dev/null",
                                          flag, d.word, m, n, x));
    } else if (d.encoded) {
        ok = run_set(d.path, mox_asprintf("quillon -q set-attr %s %s encoding=%i+%i 2>/dev/null",
                                          flag, d.word, m, n));
    } else {
        ok = run_set(d.path,
                     mox_asprintf("quillon -A -q set-attr %s mds-storage=0 2>/dev/null", d.word)) &&
             run_set(d.path, mox_asprintf("quillon -A -q set-attr %s map-type=PLAIN 2>/dev/null",
                                          d.word)) &&
             // N + 1 in 64 bits: the parser accepts any N up to INT32_MAX.
             run_set(d.path, mox_asprintf("quillon -q set-attr %s %s replicas=%lld:%d 2>/dev/null",
                                          flag, d.word, static_cast<long long>(n) + 1,
                                          n == 0 ? 1 : n));
    }
    mox_co_migrate_from_thread(back);
    if (ok && !d.encoded && nfs) {
        back = to_worker();
        ok = run_set(d.path, mox_asprintf("quillon -q set-attr %s %s mds-storage=1 2>/dev/null",
                                          flag, d.word));
        mox_co_migrate_from_thread(back);
    }
    if (ok)
        return 0;
    if (stopping())
        return -MOX_ECANCELED;
    mox_log(0, "failed to configure encoding/replicas attribute of '%s': %i (%s)", d.path,
            -MOX_EINVAL, mox_strerror(MOX_EINVAL));
    return -MOX_EINVAL;
}

// Every string of the attribute list, in order; -30 at the first failure.
int set_attr_list(const dir_entry &d, const char *flag)
{
    for (attr_node *a = attrs.next; a != &attrs; a = a->next) {
        // The list holds the administrator's arguments and values read back
        // from the cluster: either may hold shell syntax.
        char *word = shell_word(a->attr);
        mox_loop *back = to_worker();
        bool ok =
            run_set(d.path, mox_asprintf("quillon -A -q set-attr %s %s %s", flag, d.word, word));
        mox_co_migrate_from_thread(back);
        mox_free(word);
        if (!ok && stopping())
            return -MOX_ECANCELED;
        if (!ok) {
            mox_log(0, "failed to set '%s' on '%s': %i (%s)", a->attr, d.path, -MOX_EINVAL,
                    mox_strerror(MOX_EINVAL));
            return -MOX_EINVAL;
        }
    }
    return 0;
}

int create_dir(const char *path)
{
    int rc = mox_co_mkdir(path, 0700);
    if (rc == 0 || rc == -EEXIST)
        return 0;
    mox_log(0, "failed to create '%s': %i (%s)", path, rc, strerror(-rc));
    return -mox_errno_to_err(-rc);
}

// Reads the root's attributes; runs on the worker. Fills m, n, x and
// appends chunk size, failure domain and tier to the attribute list.
int read_root_attrs(const char *command, mox_config *store, int32_t *m, int32_t *n, int32_t *x)
{
    FILE *pipe = popen(command, "re");
    if (pipe == nullptr) {
        mox_log(0, "failed: popen() for '%s' failed", command);
        return -MOX_EINVAL;
    }
    static const char *const kKeys[] = {"encoding", "chunk-size", "failure-domain", "tier"};
    const char *values[4];
    int rc = mox_parse_config_file(store, pipe) == 0 ? 0 : -MOX_EMALFORMED;
    if (rc != 0)
        mox_log(0, "failed to parse output of '%s'", command);
    for (int i = 0; i < 4 && rc == 0; i++) {
        if (mox_config_getstr(store, kKeys[i], &values[i]) != 0) {
            mox_log(0, "failed to find '%s' attr in the output of '%s'", kKeys[i], command);
            rc = -MOX_EMALFORMED;
        }
    }
    if (rc == 0) {
        char *enc = mox_asprintf("encoding=%s", values[0]);
        rc = mox_parse_encoding_string(enc, m, n, x);
        mox_free(enc);
        if (rc != 0)
            mox_log(0,
                    "failed to find 'encoding=M+N/X' or 'encoding=M+N in the output of '%s': "
                    "%i (%s)'",
                    command, rc, mox_strerror(-rc));
    }
    if (rc == 0) {
        add_attr(mox_asprintf("chunk-size=%s", values[1]));
        add_attr(mox_asprintf("failure-domain=%s", values[2]));
        add_attr(mox_asprintf("tier=%s", values[3]));
    }
    pclose(pipe);
    return rc;
}

int upgrade_from_root(const char *root, int32_t *m, int32_t *n, int32_t *x)
{
    MOX_BUG_ON(attrs.next != &attrs, __FILE__, __func__);
    mox_loop *back = to_worker();
    char *quoted = shell_quoted_inner(root);
    char *command = mox_asprintf("quillon -A -q get-attr '%s' | /bin/grep -E "
                                 "'(encoding|chunk-size|failure-domain|tier)='",
                                 quoted);
    mox_free(quoted);
    mox_config *store = mox_create_config();
    mox_log(2, "getting attributes of '%s': %s", root, command);
    int rc = read_root_attrs(command, store, m, n, x);
    mox_free_config(store);
    mox_free(command);
    mox_co_migrate_from_thread(back);
    return rc;
}

int configure_entry(const dir_entry &d, int32_t m, int32_t n, int32_t x, int mode, bool nfs)
{
    const char *flag = mode == 1 && d.recursive ? "-R" : "";
    int rc;
    if (mode == 0 && (rc = create_dir(d.path)) != 0)
        return rc;
    MOX_BUG_ON(mode == 0 && m < 0, __FILE__, __func__);
    if (m >= 0 && (rc = set_redundancy(d, flag, m, n, x, nfs)) != 0)
        return rc;
    if (!d.encoded && nfs)
        return 0;
    return set_attr_list(d, flag);
}

} // namespace

int fes_cluster_dirs_configure(const char *root_dir, int32_t m, int32_t n, int32_t x, int mode)
{
    dir_table t;
    build_table(&t, root_dir);
    bool nfs = strcmp(storage_type, "nfs") == 0;
    bool upgrade = mode == 0 && m < 0;
    int rc = 0;
    if (upgrade && (rc = upgrade_from_root(root_dir, &m, &n, &x)) != 0) {
        free_table(&t);
        return rc;
    }
    const char *at = root_dir;
    for (const dir_entry &d : t.e) {
        if (upgrade && strcmp(d.path, root_dir) == 0)
            continue;
        at = d.path;
        rc = stopping() ? -MOX_ECANCELED : configure_entry(d, m, n, x, mode, nfs);
        if (rc != 0)
            break;
    }
    // A failed init-dirs leaves no empty directories behind, deepest first.
    bool cleanup = rc != 0 && mode == 0 && !upgrade;
    if (cleanup) {
        for (int i = kDirCount - 1; i >= 0; i--)
            (void)mox_co_rmdir(t.e[i].path);
    }
    if (rc == -MOX_ECANCELED)
        mox_log(0, "stopped by signal %s at '%s'; %s", mox_signal_name(mox_signal_held()), at,
                cleanup ? "the tree's empty directories are removed"
                        : "the directories before it keep their new attributes");
    free_table(&t);
    return rc;
}

namespace
{

// SIGINT and SIGTERM wait for the running program; the routine then stops
// as on a failure (init-dirs removing the empty directories) and the run
// ends with the signal's status instead of the failure report.
int configure_held(int32_t m, int32_t n, int32_t x, int mode)
{
    mox_signal_hold();
    int rc = fes_cluster_dirs_configure(root_dir, m, n, x, mode);
    if (int sig = mox_signal_held())
        mox_signal_exit(sig);
    mox_signal_release();
    return rc;
}

} // namespace

int exec_init_dirs(void)
{
    if (configure_held(encoding_m, encoding_n, encoding_x, 0) != 0)
        mox_fatal("failed to initialise directories for TARN");
    return 0;
}

int exec_reshape_dirs(void)
{
    if (configure_held(encoding_m, encoding_n, encoding_x, 1) != 0)
        mox_fatal("failed to update parameters of directories under '%s'", root_dir);
    return 0;
}

int exec_upgrade_dirs(void)
{
    if (configure_held(-1, 0, 0, 0) != 0)
        mox_fatal("failed to upgrade directories under '%s'", root_dir);
    return 0;
}
