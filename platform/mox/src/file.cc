// Coroutine file operations: each system call runs on the worker thread and
// hands back its errno as a negative result before any switch can lose it.
#include "mox/file.h"

#include "internal.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using mox_detail::run_blocking;

namespace
{

int neg_errno_if(bool failed)
{
    return failed ? -errno : 0;
}

} // namespace

extern "C" {

int mox_co_file_open(const char *path, int flags, mode_t mode, mox_co_file **file)
{
    int fd = run_blocking([&]() -> int {
        int r = open(path, flags | O_CLOEXEC, mode);
        return r < 0 ? -errno : r;
    });
    if (fd < 0)
        return fd;
    *file = new mox_co_file{fd};
    return 0;
}

ssize_t mox_co_file_read(mox_co_file *file, void *buf, size_t size, uint64_t offset)
{
    return run_blocking([&]() -> ssize_t {
        for (;;) {
            ssize_t n = pread(file->fd, buf, size, static_cast<off_t>(offset));
            if (n >= 0)
                return n;
            if (errno != EINTR)
                return -errno;
        }
    });
}

ssize_t mox_co_file_write(mox_co_file *file, const void *buf, size_t size, uint64_t offset)
{
    return run_blocking([&]() -> ssize_t {
        size_t done = 0;
        while (done < size) {
            ssize_t n = pwrite(file->fd, static_cast<const char *>(buf) + done, size - done,
                               static_cast<off_t>(offset + done));
            if (n < 0) {
                if (errno == EINTR)
                    continue;
                return done > 0 ? static_cast<ssize_t>(done) : -errno;
            }
            if (n == 0)
                break;
            done += static_cast<size_t>(n);
        }
        return static_cast<ssize_t>(done);
    });
}

int mox_co_file_sync(mox_co_file *file, int flags)
{
    return run_blocking([&]() -> int {
        return neg_errno_if((flags == 1 ? fdatasync(file->fd) : fsync(file->fd)) != 0);
    });
}

int mox_co_file_getfsize(int fd, uint64_t *size)
{
    return run_blocking([&]() -> int {
        struct stat st;
        if (fstat(fd, &st) != 0)
            return -errno;
        *size = static_cast<uint64_t>(st.st_size);
        return 0;
    });
}

int mox_co_file_close(mox_co_file *file)
{
    int fd = file->fd;
    delete file;
    // A failed close still releases the descriptor; retrying would be wrong.
    return run_blocking([fd]() -> int { return neg_errno_if(close(fd) != 0); });
}

int mox_co_file_rename(const char *oldpath, const char *newpath)
{
    return run_blocking([&]() -> int { return neg_errno_if(rename(oldpath, newpath) != 0); });
}

int mox_co_file_unlink(const char *path)
{
    return run_blocking([&]() -> int { return neg_errno_if(unlink(path) != 0); });
}

int mox_co_file_stat(const char *path, int flags, struct stat *st)
{
    return run_blocking(
        [&]() -> int { return neg_errno_if(fstatat(AT_FDCWD, path, st, flags) != 0); });
}

int mox_co_mkdir(const char *path, mode_t mode)
{
    return run_blocking([&]() -> int { return neg_errno_if(mkdir(path, mode) != 0); });
}

int mox_co_rmdir(const char *path)
{
    return run_blocking([&]() -> int { return neg_errno_if(rmdir(path) != 0); });
}

} // extern "C"
