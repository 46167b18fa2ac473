#include "nfs_actions.h"

#include "mox/mox.h"
#include "nfs.h"
#include "nfs_util.h"
#include "tarn_ctl.h"

#include <cstdio>
#include <cstring>

namespace
{

constexpr size_t kPathSize = 4096;
constexpr size_t kLongCommandSize = 16384;
constexpr size_t kShortCommandSize = 4352;

const char kMountedTest[] = "/bin/cat /proc/mounts | /bin/grep -F '%s' >/dev/null";
const char kEmptyTest[] = "/usr/bin/test -z \"$(/bin/ls -A '%s')\"";
const char kMount[] = "/bin/mount -t %s -o "
                      "hard,timeo=20,retrans=4,fg,retry=0,local_lock=%s,proto=tcp '%s:%s' '%s'";
const char kMountedOnceTest[] =
    "/bin/cat /proc/mounts | /bin/grep -F '%s' | /usr/bin/wc -l | /bin/grep '^1$' >/dev/null";
const char kParamTest[] = "/bin/cat /proc/mounts | /bin/grep '^%s:/\\?%s %s %s ' >/dev/null";
const char kTestArchive[] =
    "TEST_ARCH='%s/test.kpax'; /bin/rm -f \"$TEST_ARCH\" && "
    "/usr/bin/bundlectl -f \"$TEST_ARCH\" -C full -F && /bin/rm -f \"$TEST_ARCH\"";
const char kUmount[] = "/bin/umount '%s'";
const char kDf[] = "/bin/df '%s'";

const char kExitedWith[] = "> \"%s\" exited with %i";
const char kAlphabetMsg[] = "> invalid '%s' config parameter: %i (%s); it should contain only "
                            "chars from an alphabet [a-zA-Z0-9./_-]";
const char kQuoteMsg[] = "> invalid '%s' config parameter: %i (%s); it should not contain a single "
                         "quote";

struct nfs_settings {
    const char *root_dir;
    const char *host;
    const char *export_path;
};

// Buffers of the mount and df actions live to the end of the process; the
// slots keep them reachable.
char *kept_buffers[8];

char *kept_buffer(size_t size)
{
    for (char *&slot : kept_buffers) {
        if (slot == nullptr)
            return slot = static_cast<char *>(mox_malloc(size));
    }
    mox_bug("tarn-ctl-nfs", __LINE__, "kept_buffer");
}

void check_storage_type()
{
    const char *type = nullptr;
    int rc = mox_config_getstr(config, "storage.type", &type);
    if (rc == 0 && strcmp(type, "nfs") != 0)
        rc = -MOX_EMALFORMED;
    if (rc != 0)
        nfs_fail("> failed to find a line 'storage.type = nfs' in the config: %i (%s)", rc,
                 mox_strerror(-rc));
}

const char *require_expanded(const char *key, const char *placeholder)
{
    const char *value = nullptr;
    int rc = mox_config_getstr_expand(config, key, &value);
    if (rc != 0)
        nfs_fail("> failed to find a line '%s = %s' in the config: %i (%s)", key, placeholder, rc,
                 mox_strerror(-rc));
    return value;
}

const char *require_root_dir()
{
    return require_expanded("root_dir", "</absolute/path>");
}

nfs_settings common_checks()
{
    check_storage_type();
    nfs_settings s;
    s.root_dir = require_root_dir();
    s.host = require_expanded("storage.nfs.host", "<host>");
    s.export_path = require_expanded("storage.nfs.export", "<export>");
    return s;
}

void require_alphabet(const char *key, const char *value)
{
    if (check_alphabet(value) != 0)
        nfs_fail(kAlphabetMsg, key, -MOX_EINVAL, mox_strerror(MOX_EINVAL));
}

char *mount_point(const char *root_dir)
{
    char *path = kept_buffer(kPathSize);
    snprintf(path, kPathSize, "%s/storage", root_dir);
    return path;
}

// Exit code 0 when the mount point occurs in the mount table, 1 when not.
int run_mounted_test(char *command, size_t size, const char *path)
{
    snprintf(command, size, kMountedTest, path);
    int code = nfs_system(command);
    if (code != 0 && code != 1)
        nfs_fail(kExitedWith, command, code);
    return code;
}

// Runs `command`, formed by the caller, and fails with `message` (the
// command and its exit code) unless it ends with 0.
void run_or_fail(const char *command, const char *message)
{
    int code = nfs_system(command);
    if (code != 0)
        nfs_fail(message, command, code);
}

} // namespace

void check_mount(const char *host, const char *export_path, const char *root_dir)
{
    require_alphabet("root_dir", root_dir);
    require_alphabet("storage.nfs.host", host);
    require_alphabet("storage.nfs.export", export_path);

    char *path = mount_point(root_dir);
    char *command = kept_buffer(kLongCommandSize);
    snprintf(command, kLongCommandSize, kMountedOnceTest, path);
    run_or_fail(command, "> $root_dir/storage is not mounted, or mounted multiple times: \"%s\" "
                         "exited with error %i");

    const char *type = config_getflag(config) ? "nfs4" : "\\(nfs\\|nfs4\\)";
    command = kept_buffer(kLongCommandSize);
    snprintf(command, kLongCommandSize, kParamTest, host, export_path, path, type);
    run_or_fail(command, "> NFS mount parameters mismatch: \"%s\" exited with error %i");
}

void nfs_mount(void)
{
    nfs_settings s = common_checks();
    require_alphabet("root_dir", s.root_dir);

    char *path = mount_point(s.root_dir);
    char *command = kept_buffer(kLongCommandSize);
    if (run_mounted_test(command, kLongCommandSize, path) == 1) {
        snprintf(command, kLongCommandSize, kEmptyTest, path);
        run_or_fail(command, "> failed while checking that mount point is empty; '%s' exited "
                             "with %i");
        bool v4 = config_getflag(config);
        snprintf(command, kLongCommandSize, kMount, v4 ? "nfs4" : "nfs", v4 ? "none" : "all",
                 s.host, s.export_path, path);
        run_or_fail(command, kExitedWith);
    }

    check_mount(s.host, s.export_path, s.root_dir);

    snprintf(command, kLongCommandSize, kTestArchive, path);
    run_or_fail(command, "> cannot create a test archive in \"$root_dir/storage\": \"%s\" exited "
                         "with error %i");
}

void umount(void)
{
    static char path[kPathSize];
    static char command[kShortCommandSize];
    check_storage_type();
    // Not checked against the alphabet: unmounting needs no other value. A
    // single quote would end the quoted word of the command; the mount
    // action never mounts under such a root, so refusing it loses nothing.
    const char *root_dir = require_root_dir();
    if (strchr(root_dir, '\'') != nullptr)
        nfs_fail(kQuoteMsg, "root_dir", -MOX_EINVAL, mox_strerror(MOX_EINVAL));
    snprintf(path, sizeof path, "%s/storage", root_dir);
    if (run_mounted_test(command, sizeof command, path) == 1)
        return;
    snprintf(command, sizeof command, kUmount, path);
    run_or_fail(command, kExitedWith);
}

void nfs_df(void)
{
    nfs_settings s = common_checks();
    check_mount(s.host, s.export_path, s.root_dir);

    char *path = mount_point(s.root_dir);
    char *command = kept_buffer(kShortCommandSize);
    snprintf(command, kShortCommandSize, kDf, path);
    run_or_fail(command, "> \"%s\" exited with error %i");
}
