/* Coroutine file operations. Each runs its system call on the worker thread
 * (or directly when the caller is not a coroutine on a loop) and suspends
 * the calling coroutine meanwhile. Results: 0 or a byte count on success,
 * a negated errno value on failure; -110 when the context's deadline has
 * passed before the call. */
#ifndef MOX_FILE_H
#define MOX_FILE_H

#include "mox/compiler.h"

#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/types.h>

MOX_EXTERN_C_BEGIN

typedef struct mox_co_file {
    int32_t fd; /* first member: callers read it for mox_co_file_getfsize */
} mox_co_file;

/* Opens with close-on-exec added; the handle is freed by mox_co_file_close. */
int mox_co_file_open(const char *path, int flags, mode_t mode, mox_co_file **file);
/* One read of up to `size` bytes at `offset`; 0 at end of file. */
ssize_t mox_co_file_read(mox_co_file *file, void *buf, size_t size, uint64_t offset);
/* Writes all `size` bytes at `offset` unless an error stops it early. */
ssize_t mox_co_file_write(mox_co_file *file, const void *buf, size_t size, uint64_t offset);
/* Puts the data on stable storage: flags 0 syncs data and metadata
 * (fsync), 1 the data and the metadata needed to read it (fdatasync). */
int mox_co_file_sync(mox_co_file *file, int flags);
int mox_co_file_getfsize(int fd, uint64_t *size);
/* Closes and frees the handle (also when close reports an error). */
int mox_co_file_close(mox_co_file *file);
int mox_co_file_rename(const char *oldpath, const char *newpath);
int mox_co_file_unlink(const char *path);
/* `flags` as for fstatat (0, or AT_SYMLINK_NOFOLLOW). */
int mox_co_file_stat(const char *path, int flags, struct stat *st);
int mox_co_mkdir(const char *path, mode_t mode);
int mox_co_rmdir(const char *path);

MOX_EXTERN_C_END

#endif
