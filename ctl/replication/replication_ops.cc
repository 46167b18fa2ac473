// The replication executor: the operation queue, the gateway clients, the
// file walk, and the operations that switch replication per file.
#include "ember/ar_io.h"
#include "fes_utils/fes_utils.h"
#include "mox/mox.h"
#include "replication/replication.h"
#include "utils/secret.h"

#include <cstring>
#include <openssl/evp.h>

using namespace replication_state;

namespace
{

const int32_t kOperationTimeoutMs = 120000;
const int kSecretKind = 1;
const uint32_t kReplicaMask = 7;

// The account's name towards the trust-secret calls: the path without "/".
const char *account_name(const char *account)
{
    return account + 1;
}

void check_account(const char *account, const char *usage)
{
    if (!is_toplevel_dir(account))
        mox_fatal("%s", usage);
}

ember_client *master_client()
{
    return make_ember_client(master_addr, master_cert, master_uid, kReplicaMask);
}

ember_client *slave_client()
{
    return make_ember_client(slave_addr, slave_cert, slave_uid, kReplicaMask);
}

void set_secret(ember_client *client, const char *account, const char *secret, const char *host)
{
    int rc = ember_set_trust_secret(client, account_name(account), kSecretKind, secret);
    if (rc != 0)
        mox_fatal("failed to set the secret string for account '%s' on host %s: %i (%s)", account,
                  host, rc, mox_strerror(-rc));
}

// The account's secret, which must exist; the caller frees it.
char *query_secret(ember_client *client, const char *account, const char *host)
{
    char *secret = nullptr;
    int rc = ember_get_trust_secret(client, account_name(account), kSecretKind, &secret);
    if (rc != 0)
        mox_fatal("failed to query the secret string on '%s' from %s: %i (%s)", account, host, rc,
                  mox_strerror(-rc));
    return secret;
}

void enable_file(ember_client *master, const char *path, void *)
{
    int rc = ember_file_enable_replication(master, path, slave_addr, slave_uid);
    if (rc != 0)
        mox_fatal("failed to enable replication on '%s': %i (%s)", path, rc, mox_strerror(-rc));
}

void disable_file(ember_client *master, const char *path, void *)
{
    int rc = ember_file_disable_replication(master, path, force ? 1 : 0);
    if (rc != 0)
        mox_fatal("failed to disable replication on '%s': %i (%s)", path, rc, mox_strerror(-rc));
}

void detach_file(ember_client *slave, const char *path, void *)
{
    int rc = ember_file_detach_replica_from_master(slave, path, 0);
    if (rc != 0)
        mox_fatal("failed to detach replica on '%s': %i (%s)", path, rc, mox_strerror(-rc));
}

void switch_file(ember_client *master, const char *path, void *)
{
    int rc = ember_file_switch_to_slave_replica(master, path);
    if (rc != 0)
        mox_fatal("failed to switch to slave on '%s': %i (%s)", path, rc, mox_strerror(-rc));
}

void join_file(ember_client *master, const char *path, void *)
{
    int rc = ember_file_join_to_slave_replica(master, path, slave_uid);
    if (rc != 0)
        mox_fatal("failed to join to slave on '%s' for slave '%s': %i (%s)", path, slave_uid, rc,
                  mox_strerror(-rc));
}

void handle_command(const replication_command *rc)
{
    switch (rc->kind) {
    case REPL_ENABLE:
        return replication_enable(rc->account);
    case REPL_AUTO:
        return replication_auto(rc);
    case REPL_DISABLE:
        return replication_disable(rc->account);
    case REPL_DETACH:
        return replication_detach(rc->account);
    case REPL_SWITCH_TO_SLAVE:
        return replication_switch_to_slave(rc->account);
    case REPL_JOIN_SLAVE:
        return replication_join_slave(rc->account);
    case REPL_CHECK_CONSISTENCY:
        return replication_check_consistency(rc->account);
    default:
        mox_bug("tarn-ctl-replication", __LINE__, "handle_command");
    }
}

} // namespace

int exec_replication(void)
{
    while (!mox_list_empty(&commands)) {
        auto *rc = mox_container_of(commands.next, replication_command, link);
        // Each operation gets its own 120 s, whatever the ones before it used.
        mox_context *saved = mox_context_get(mox_co_get_ctx(mox_current_co()));
        mox_context *child = mox_context_alloc_child(saved);
        mox_co_set_ctx(child);
        mox_context_put(child);
        mox_co_ctx_set_timeout(kOperationTimeoutMs);
        handle_command(rc);
        mox_co_set_ctx(saved);
        mox_context_put(saved);
        mox_list_del_init(&rc->link);
        mox_free(rc);
    }
    return 0;
}

ember_client *make_ember_client(const char *address, const char *cert, const char *uid,
                                uint32_t mask)
{
    ember_client *client = ember_client_alloc();
    EVP_PKEY *key = nullptr;
    int rc = mox_pkey_from_pem_file(cert, &key);
    if (rc != 0)
        mox_fatal("failed to get private key form certificate '%s': %i (%s)", cert, rc,
                  mox_strerror(-rc));
    ember_jwt_grant grant = {"/", mask};
    ember_jwt_request req = {"tarn:self", "self", "self", "self", uid, &grant, 1, key};
    char *jwt = ember_jwt_generate(&req);
    EVP_PKEY_free(key);
    rc = ember_client_set_host(client, address);
    if (rc == 0)
        rc = ember_client_set_ident(client, "tarn-ctl replication", 0, 0, 1);
    // A key the signer cannot use leaves no token: the client cannot be set up.
    if (rc == 0)
        rc = jwt != nullptr ? ember_client_set_jwt(client, jwt) : -MOX_EINVAL;
    if (rc != 0)
        mox_fatal("failed to initialize client to tarn: %i (%s)", rc, mox_strerror(-rc));
    ember_client_set_allowed_protos(client, 2);
    mox_free(jwt);
    return client;
}

void replication_walk(ember_client *client, const char *account, const char *list_msg,
                      replication_file_fn fn, void *arg)
{
    ar_io_dir *dir = nullptr;
    mox_list files;
    mox_list_init(&files);
    int rc = ar_io_open_ember_dir_cl(client, account, &dir, 0);
    if (rc == 0) {
        rc = list_dir_entries(dir, account, 1, &files);
        ar_io_dir_put(dir);
    }
    if (rc != 0)
        mox_fatal(list_msg, account, rc, strerror(-rc));
    for (mox_list *l = files.next; l != &files; l = l->next) {
        dirlist_entry *e = dirlist_entry_of(l);
        if ((e->mode & FES_MODE_TYPE) != FES_MODE_REG || fes_file_is_temp(e->path))
            continue;
        fn(client, e->path, arg);
    }
    free_dirlist_entries(&files);
}

void replication_enable(const char *account)
{
    check_account(account, "use: --enable /account");
    ember_client *master = master_client();
    ember_client *slave = slave_client();
    char *secret = nullptr;
    int rc = ember_get_trust_secret(master, account_name(account), kSecretKind, &secret);
    if (rc == -MOX_ENOENT)
        secret = generate_hmac_secret(40);
    else if (rc != 0)
        mox_fatal("failed to query the secret string on '%s' from %s: %i (%s)", account,
                  master_addr, rc, mox_strerror(-rc));
    set_secret(master, account, secret, master_addr);
    set_secret(slave, account, secret, slave_addr);
    mox_free(secret);
    replication_walk(master, account, "failed to list files in '%s': %i (%s)", enable_file,
                     nullptr);
    ember_client_put(slave);
    ember_client_put(master);
}

void replication_disable(const char *account)
{
    check_account(account, "use: --disable /account");
    ember_client *master = master_client();
    ember_client *slave = slave_client();
    replication_walk(master, account, "failed to list files in '%s': %i (%s)", disable_file,
                     nullptr);
    const char *msg = "failed to clear the secret string for account '%s' on host %s: %i (%s)";
    int rc = ember_set_trust_secret(slave, account_name(account), kSecretKind, "");
    if (rc != 0 && force)
        mox_co_log(1, msg, account, slave_addr, rc, mox_strerror(-rc));
    else if (rc != 0)
        mox_fatal(msg, account, slave_addr, rc, mox_strerror(-rc));
    rc = ember_set_trust_secret(master, account_name(account), kSecretKind, "");
    if (rc != 0)
        mox_fatal(msg, account, master_addr, rc, mox_strerror(-rc));
    ember_client_put(slave);
    ember_client_put(master);
}

void replication_detach(const char *account)
{
    check_account(account, "use: --detach /account");
    ember_client *slave = slave_client();
    int rc = ember_set_trust_secret(slave, account_name(account), kSecretKind, "");
    if (rc != 0)
        mox_fatal("failed to clear the secret string for file '%s' on host %s: %i (%s)", account,
                  slave_addr, rc, mox_strerror(-rc));
    replication_walk(slave, account, "failed to list files in '%s': %i (%s)", detach_file, nullptr);
    ember_client_put(slave);
}

void replication_switch_to_slave(const char *account)
{
    check_account(account, "use: --switch-to-slave /account");
    ember_client *master = master_client();
    char *secret = query_secret(master, account, master_addr);
    replication_walk(master, account, "failed to list files in '%s' on master: %i (%s)",
                     switch_file, nullptr);
    ember_client_put(master);
    mox_free(secret);
}

void replication_join_slave(const char *account)
{
    check_account(account, "use: --join-to-slave /account");
    ember_client *master = master_client();
    ember_client *slave = slave_client();
    char *secret = query_secret(slave, account, slave_addr);
    set_secret(master, account, secret, master_addr);
    replication_walk(master, account, "failed to list files in '%s' on master: %i (%s)", join_file,
                     nullptr);
    ember_client_put(master);
    ember_client_put(slave);
    mox_free(secret);
}
