// One account's pull: a trust secret shared by the two gateways (DC trust
// mode), or the account directory, a copy of the source certificate and the
// account info file in the local tree (info-file mode). The gateway service
// reads these files while the tool writes them, so each appears under its
// final name only when complete and on stable storage.
#include "frame/tarn_ctl.h"
#include "mox/mox.h"
#include "pull.h"
#include "utils/secret.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace
{

const char kInfoType[] = "tarn.acc-data.0";
const size_t kCopyBuffer = 65536;

void pull_with_trust(ember_client *src, const pull_command *c)
{
    const pull_settings_t &s = pull_settings;
    char *secret = generate_hmac_secret(40);
    if (src != nullptr)
        src = ember_client_get(src);
    else if (c->src_jwt != nullptr)
        src = get_ember_client_jwt(c->src, c->src_jwt);
    else
        src = get_ember_client_cert(c->src, c->src_cert);
    int rc = ember_set_trust_secret(src, c->account, 2, secret);
    if (rc != 0)
        mox_fatal("failed to set trust secret for source account '%s': %i (%s)", c->account, rc,
                  mox_strerror(-rc));
    ember_client_put(src);
    ember_client *dst = get_dst_ember_client(c->dst, c->dst_cert, c->dst_jwt);
    if (s.merge_replace)
        mox_fatal("--merge-replace is not supported with --src-dc-uid");
    rc = ember_account_pull_configure_dst(dst, c->new_name, s.src_dc_uid, c->src, c->account,
                                          secret, s.rm_when_done ? 5 : 4);
    if (rc != 0)
        mox_fatal("failed to configure pull for account '%s' on destination TARN: %i (%s)",
                  c->new_name, rc, mox_strerror(-rc));
    ember_client_put(dst);
    mox_free(secret);
}

// An existing info file may be replaced only with --merge-replace, and only
// once the pull it describes has started.
void check_existing_info(const char *path)
{
    if (!pull_settings.merge_replace)
        mox_fatal("failed: Account info file '%s' exists. Maybe you forgot to pass "
                  "'--merge-replace' option",
                  path);
    mox_config *info = mox_read_config(path);
    if (info == nullptr)
        mox_fatal("failed to read config from '%s'", path);
    const char *type = nullptr;
    if (mox_config_getstr(info, ".type", &type) != 0)
        mox_fatal("failed to get '.type' from '%s'", path);
    if (strcmp(type, kInfoType) != 0)
        mox_fatal("failed: unsupported '.type=%s' in '%s'", type, path);
    int32_t started = 1;
    int rc = mox_config_getint(info, "pull.started", &started, sizeof started);
    if (rc != 0 && rc != -MOX_ENOENT)
        mox_fatal("failed to get 'pull.started' from '%s': %i (%s)", path, rc, mox_strerror(-rc));
    if (started == 0)
        mox_fatal("Previously configured pull is not started yet. Maybe you need to start it "
                  "manually. Account info file: '%s'",
                  path);
    mox_free_config(info);
}

// 0, or the negative code of the first failed step; the copy is on stable
// storage when it returns 0.
int copy_through(mox_co_file *in, mox_co_file *out)
{
    auto *buf = static_cast<char *>(mox_malloc(kCopyBuffer));
    uint64_t offset = 0;
    int rc = 0;
    for (;;) {
        ssize_t n = mox_co_file_read(in, buf, kCopyBuffer, offset);
        if (n <= 0) {
            rc = static_cast<int>(n);
            break;
        }
        ssize_t w = mox_co_file_write(out, buf, static_cast<size_t>(n), offset);
        if (w != n) {
            rc = w < 0 ? static_cast<int>(w) : -EIO;
            break;
        }
        offset += static_cast<uint64_t>(n);
    }
    if (rc == 0)
        rc = mox_co_file_sync(out, 0);
    mox_free(buf);
    return rc;
}

void copy_certificate(const char *cert, const char *tmp)
{
    mox_co_file *in = nullptr, *out = nullptr;
    int rc = mox_co_file_open(cert, O_RDONLY, 0600, &in);
    if (rc == 0) {
        rc = mox_co_file_open(tmp, O_WRONLY | O_CREAT | O_EXCL, 0600, &out);
        if (rc != 0)
            mox_co_file_close(in);
    }
    if (rc == 0) {
        rc = copy_through(in, out);
        mox_co_file_close(in);
        mox_co_file_close(out);
        if (rc != 0)
            mox_co_file_unlink(tmp); // never leave a partial copy to block the next pull
    }
    if (rc != 0)
        mox_fatal("failed to copy '%s' to '%s': %i (%s)", cert, tmp, rc, strerror(-rc));
}

void rename_or_die(const char *from, const char *to)
{
    int rc = mox_co_file_rename(from, to);
    if (rc != 0)
        mox_fatal("failed to rename '%s' to '%s': %i (%s)", from, to, rc, strerror(-rc));
}

void write_info(const pull_command *c, const char *dir, const char *copy)
{
    char *tmp = mox_asprintf("%s.info-tmp", dir);
    char *info = mox_asprintf("%s.info", dir);
    mox_co_file *f = nullptr;
    int rc = mox_co_file_open(tmp, O_WRONLY | O_CREAT | O_EXCL, 0600, &f);
    if (rc != 0)
        mox_fatal("failed to open '%s': %i (%s)", tmp, rc, strerror(-rc));
    char *text = mox_asprintf(".type=%s\npull.src-host=%s\npull.src-account=%s\npull.src-cert=%s\n"
                              "pull.rm-when-done=%i\npull.started=0",
                              kInfoType, c->src, c->account, copy, pull_settings.rm_when_done);
    size_t len = strlen(text);
    ssize_t w = mox_co_file_write(f, text, len, 0);
    if (w < 0 || static_cast<size_t>(w) != len)
        mox_fatal("failed to write a .info file for '%s': write() returned %i instead of %u",
                  c->new_name, static_cast<int>(w), static_cast<unsigned>(len));
    rc = mox_co_file_sync(f, 0);
    if (rc != 0)
        mox_fatal("failed to fsync a .info file for '%s': %i (%s)", c->new_name, rc, strerror(-rc));
    mox_co_file_close(f);
    rename_or_die(tmp, info);
    mox_free(text);
    mox_free(info);
    mox_free(tmp);
}

bool is_single_component(const char *name)
{
    return *name != '\0' && strcmp(name, ".") != 0 && strcmp(name, "..") != 0 &&
           strchr(name, '/') == nullptr;
}

void write_account_files(const pull_command *c, const char *root);

void pull_with_info_file(const pull_command *c)
{
    const char *root = nullptr;
    int rc = mox_config_getstr_expand(config, "root_dir", &root);
    if (rc == 0 && *root == '\0')
        rc = -MOX_ENOENT; // an empty root would put accounts under "/var/files"
    if (rc != 0)
        mox_fatal("failed to find a line 'root_dir = </absolute/path>' in TARN config file: "
                  "%i (%s)",
                  rc, mox_strerror(-rc));
    // The info file names a copy of the source certificate: without one
    // there is nothing to copy, and the gateway could not pull.
    if (c->src_cert == nullptr)
        mox_fatal("failed to pull account '%s': --src-cert is required without --src-dc-uid",
                  c->account);
    // The name becomes one directory under var/files; anything else would
    // write outside the account tree (a listing comes from another DC).
    if (!is_single_component(c->new_name))
        mox_fatal("failed to pull account '%s': '%s' is not a valid account name", c->account,
                  c->new_name);
    // Every step blocks on the file system: doing them all on the worker
    // saves two thread hand-offs per step.
    mox_loop *back = mox_co_migrate_to_thread(mox_process_worker(mox_current_process()));
    write_account_files(c, root);
    mox_co_migrate_from_thread(back);
}

void write_account_files(const pull_command *c, const char *root)
{
    char *dir = mox_asprintf("%s/var/files/%s/", root, c->new_name);
    int rc = mox_co_mkdir(dir, 0700);
    if (rc != 0 && rc != -EEXIST)
        mox_fatal("failed to create a directory '%s' for an account to pull: %i (%s)", dir, rc,
                  strerror(-rc));
    char *info = mox_asprintf("%s.info", dir);
    struct stat st;
    rc = mox_co_file_stat(info, 0, &st);
    if (rc == 0)
        check_existing_info(info);
    else if (rc != -ENOENT)
        mox_fatal("failed to stat '%s': %i (%s)", info, rc, strerror(-rc));
    unsigned long long seconds = static_cast<unsigned long long>(get_real_time_ms()) / 1000;
    char *copy = mox_asprintf("%s.pull.src-cert.%llu", dir, seconds);
    char *tmp = mox_asprintf("%s.pull.src-cert-tmp", dir);
    copy_certificate(c->src_cert, tmp);
    rename_or_die(tmp, copy);
    write_info(c, dir, copy);
    mox_free(tmp);
    mox_free(copy);
    mox_free(info);
    mox_free(dir);
}

} // namespace

void pull_account(ember_client *src, const pull_command *command)
{
    if (pull_settings.src_dc_uid != nullptr)
        pull_with_trust(src, command);
    else
        pull_with_info_file(command);
}
