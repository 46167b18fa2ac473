// "--check-consistency": both sites share the account's secret, every file
// on the master is a master replicating to the slave, and every file on the
// slave is a replica of the master that the master still has. The first
// deviation ends the program; nothing is changed on either site.
#include "ember/ar_io.h"
#include "fes_utils/fes_utils.h"
#include "mox/mox.h"
#include "replication/replication.h"

#include <cstring>

using namespace replication_state;

namespace
{

const int kSecretKind = 1;

// What one site must say about each of its files.
struct site_check {
    const char *site;      // "master" or "slave", as the messages name it
    bool want_master;      // "replica.is_master" non-zero
    const char *want_peer; // "replica.peer_uid"
};

char *query_secret(ember_client *client, const char *account, const char *host)
{
    char *secret = nullptr;
    int rc = ember_get_trust_secret(client, account + 1, kSecretKind, &secret);
    if (rc != 0)
        mox_fatal("failed to query the secret string on '%s' from %s: %i (%s)", account, host, rc,
                  mox_strerror(-rc));
    return secret;
}

// Reads the three keys first, so that a missing one is reported even for a
// file whose replication is off.
void check_state(const site_check &chk, const char *path, mox_config *st)
{
    int32_t enabled = 0, is_master = 0;
    const char *peer = nullptr;
    int rc = mox_config_getint(st, "replica.enabled", &enabled, sizeof enabled);
    if (rc != 0)
        mox_fatal("failed to get replica.enabled from config for '%s' on %s: %i (%s)", path,
                  chk.site, rc, mox_strerror(-rc));
    rc = mox_config_getint(st, "replica.is_master", &is_master, sizeof is_master);
    if (rc != 0)
        mox_fatal("failed to get replica.is_master from config for '%s' on %s: %i (%s)", path,
                  chk.site, rc, mox_strerror(-rc));
    rc = mox_config_getstr(st, "replica.peer_uid", &peer);
    if (rc != 0)
        mox_fatal("failed to get replica.peer_uid from config for '%s' on %s: %i (%s)", path,
                  chk.site, rc, mox_strerror(-rc));
    if (enabled == 0)
        mox_fatal("replication is not enabled on %s site for file '%s'", chk.site, path);
    if (chk.want_master && is_master == 0)
        mox_fatal("replication master is not a master for file '%s'", path);
    if (!chk.want_master && is_master != 0)
        mox_fatal("slave is a replication master for file '%s", path);
    if (strcmp(peer, chk.want_peer) != 0) {
        if (chk.want_master)
            mox_fatal("wrong slave uid in master's config: expected '%s', got '%s' for file '%s'",
                      chk.want_peer, peer, path);
        mox_fatal("wrong master uid in slave's config: expected '%s', got '%s' for file '%s'",
                  chk.want_peer, peer, path);
    }
}

void check_file(ember_client *client, const char *path, const site_check &chk)
{
    char *text = nullptr;
    int rc = ember_file_get_state(client, path, &text);
    if (rc != 0)
        mox_fatal("failed to get file state for '%s' on %s: %i (%s)", path, chk.site, rc,
                  mox_strerror(-rc));
    mox_config *st = mox_read_config_mem(text);
    mox_free(text);
    if (st == nullptr)
        mox_fatal("failed to parse info file for '%s' from %s", path, chk.site);
    check_state(chk, path, st);
    mox_free_config(st);
}

void check_master_file(ember_client *master, const char *path, void *)
{
    check_file(master, path, site_check{"master", true, slave_uid});
}

// The slave's files, temporary ones included, each of which the master must
// still be able to open.
void check_slave_files(ember_client *slave, ember_client *master, const char *account)
{
    ar_io_dir *dir = nullptr;
    mox_list files;
    mox_list_init(&files);
    int rc = ar_io_open_ember_dir_cl(slave, account, &dir, 0);
    if (rc == 0) {
        rc = list_dir_entries(dir, account, 1, &files);
        ar_io_dir_put(dir);
    }
    if (rc != 0)
        mox_fatal("failed to list files in '%s' on slave: %i (%s)", account, rc, strerror(-rc));
    const site_check chk{"slave", false, master_uid};
    for (mox_list *l = files.next; l != &files; l = l->next) {
        const dirlist_entry *e = dirlist_entry_of(l);
        if ((e->mode & FES_MODE_TYPE) != FES_MODE_REG)
            continue;
        check_file(slave, e->path, chk);
        ember_file *file = nullptr;
        rc = ember_file_open(master, &file, e->path, 0);
        if (rc != 0)
            mox_fatal("failed to open file '%s' on master: %i (%s)", e->path, rc,
                      mox_strerror(-rc));
        rc = ember_file_close(file);
        if (rc != 0)
            mox_fatal("failed to close file '%s' on master: %i (%s)", e->path, rc,
                      mox_strerror(-rc));
    }
    free_dirlist_entries(&files);
}

} // namespace

void replication_check_consistency(const char *account)
{
    if (!is_toplevel_dir(account))
        mox_fatal("use: --check-consistency /account");
    ember_client *master = make_ember_client(master_addr, master_cert, master_uid, 3);
    ember_client *slave = make_ember_client(slave_addr, slave_cert, slave_uid, 7);
    char *master_secret = query_secret(master, account, master_addr);
    char *slave_secret = query_secret(slave, account, slave_addr);
    if (strcmp(master_secret, slave_secret) != 0)
        mox_fatal("replication secrets are inequal on master and slave, master: '%s', slave: '%s'",
                  master_secret, slave_secret);
    replication_walk(master, account, "failed to list files in '%s' on master: %i (%s)",
                     check_master_file, nullptr);
    check_slave_files(slave, master, account);
    ember_client_put(slave);
    ember_client_put(master);
    mox_free(slave_secret);
    mox_free(master_secret);
}
