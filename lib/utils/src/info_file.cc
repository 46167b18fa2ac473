// Info files: configuration text tagged with a ".type" magic, rewritten in
// place and padded so that a file never shrinks and never needs truncation.
#include "utils/info_file.h"

#include "mox/alloc.h"
#include "mox/errors.h"
#include "mox/log.h"
#include "mox/misc.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace
{

constexpr const char *kMagicKey = ".type";
constexpr const char *kMtimeKey = ".mtime_ms";
constexpr uint64_t kReadSlack = 4096;

// Turns a failure of the size query, the write or the sync into the
// caller's code. ENOTCONN means the cluster mount under the file died and
// nothing written there can be trusted any more.
int write_error(int rc)
{
    if (rc == -EIO)
        return -MOX_EIO;
    if (rc == -ENOTCONN)
        mox_fatal("quillon-mount is dead, aborting");
    return -mox_errno_to_err(-rc);
}

// `text` padded with blanks to `size` bytes, the last one a newline when
// any padding was added; NUL-terminated.
char *pad_string(const char *text, uint64_t size)
{
    size_t len = strlen(text);
    MOX_BUG_ON(len > size, "utils", "pad_string");
    auto *record = static_cast<char *>(mox_malloc(size + 1));
    memcpy(record, text, len);
    memset(record + len, ' ', size - len);
    if (size > len)
        record[size - 1] = '\n';
    record[size] = '\0';
    return record;
}

int write_record(mox_co_file *file, const char *record, uint64_t size)
{
    ssize_t n = mox_co_file_write(file, record, size, 0);
    if (n < 0)
        return static_cast<int>(n);
    if (static_cast<uint64_t>(n) != size)
        return -EIO;
    return mox_co_file_sync(file, 1);
}

} // namespace

extern "C" {

int mkdir_parent(const char *base, const char *relpath)
{
    size_t dirlen = strlen(base) + strlen(relpath) + 2;
    auto *dir = static_cast<char *>(mox_malloc(dirlen));
    char *rel = mox_strdup(relpath);
    int result = strchr(rel, '/') == nullptr ? -MOX_EINVAL : 0;
    for (char *slash = strchr(rel, '/'); slash != nullptr; slash = strchr(slash + 1, '/')) {
        *slash = '\0';
        snprintf(dir, dirlen, "%s/%s", base, rel);
        *slash = '/';
        int rc = mox_co_mkdir(dir, 0700);
        if (rc == 0 || mox_errno_to_err(-rc) == MOX_EEXIST)
            continue;
        char text[255];
        mox_co_log(0, "failed to create a directory '%s': %i (%s)", dir, rc,
                   mox_sys_strerror_r(-rc, text, sizeof text));
        result = rc;
        break;
    }
    mox_free(rel);
    mox_free(dir);
    return result;
}

int info_file_write(const char *path, mox_co_file *file, const char *magic, uint32_t size,
                    mox_config *cfg)
{
    uint64_t fsize = 0;
    int rc = mox_co_file_getfsize(file->fd, &fsize);
    if (rc != 0) {
        mox_co_log(0, "info_file_write: failed to stat '%s': %i (%s)", path, rc, strerror(-rc));
        return write_error(rc);
    }
    if (mox_config_setstr(cfg, kMagicKey, magic) != 0) {
        mox_co_log(0, "info_file_write: invalid magic '%s' for '%s'", magic, path);
        return -MOX_EINVAL;
    }
    mox_config_setint(cfg, kMtimeKey, get_real_time_ms());

    uint64_t record_size = fsize > size ? fsize : size;
    char *text = mox_write_config_mem(cfg);
    char *record = pad_string(text, record_size);
    mox_free(text);
    rc = write_record(file, record, record_size);
    mox_free(record);
    if (rc != 0) {
        mox_co_log(0, "info_file_write: failed to write '%s': %i (%s)", path, rc, strerror(-rc));
        return write_error(rc);
    }
    return 0;
}

int info_file_read(const char *path, mox_co_file *file, uint32_t size, char **text)
{
    // Room beyond the expected size tells a full read from a file that
    // grew past the buffer.
    uint64_t buflen = size <= kReadSlack ? size + kReadSlack : 2 * static_cast<uint64_t>(size);
    auto *buf = static_cast<char *>(mox_malloc(buflen + 1));
    ssize_t n = mox_co_file_read(file, buf, buflen, 0);
    if (n < 0) {
        mox_free(buf);
        return n == -EIO ? -MOX_EIO : -mox_errno_to_err(static_cast<int>(-n));
    }
    if (static_cast<uint64_t>(n) == buflen) {
        mox_co_log(0,
                   "info_file_read: read from '%s' filled all buffer of size %llu; possibly "
                   "have unread data",
                   path, static_cast<unsigned long long>(buflen));
        mox_free(buf);
        return -MOX_EMALFORMED;
    }
    buf[n] = '\0';
    size_t len = strlen(buf);
    while (len > 0 && isspace(static_cast<unsigned char>(buf[len - 1])))
        --len;
    buf[len] = '\0';
    *text = buf;
    return 0;
}

int info_file_parse(const char *path, mox_co_file *file, const char *magic, uint32_t size,
                    mox_config **cfg)
{
    char *text = nullptr;
    int rc = info_file_read(path, file, size, &text);
    if (rc != 0)
        return rc;
    if (text[0] == '\0') {
        mox_free(text);
        return -MOX_EEMPTY;
    }
    mox_config *store = mox_read_config_mem(text);
    mox_free(text);
    if (store == nullptr) {
        mox_co_log(0, "info_file_parse: the content of '%s' is not a mox_config file", path);
        return -MOX_EMALFORMED;
    }
    const char *found = nullptr;
    rc = mox_config_getstr(store, kMagicKey, &found);
    if (rc != 0) {
        mox_co_log(0, "info_file_parse: failed to get magic for '%s': %i (%s)", path, rc,
                   mox_strerror(-rc));
    } else if (strcmp(found, magic) != 0) {
        mox_co_log(0, "info_file_parse: '%s' has invalid magic '%s' (expected '%s')", path, found,
                   magic);
        rc = -MOX_EMALFORMED;
    }
    if (rc != 0) {
        mox_free_config(store);
        return -MOX_EMALFORMED;
    }
    mox_config_unset(store, kMagicKey);
    *cfg = store;
    return 0;
}

} // extern "C"
