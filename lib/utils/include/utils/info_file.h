/* Info files: small "key = value" files tagged with a ".type" magic that
 * names their kind and a ".mtime_ms" wall-clock time of the last write.
 * The caller opens and closes the file; these calls only read and write
 * through the handle. All of them run in a coroutine on the event loop and
 * suspend it while the file operation runs. Nothing here locks: writers of
 * one file must be kept apart by the caller. */
#ifndef TARN_UTILS_INFO_FILE_H
#define TARN_UTILS_INFO_FILE_H

#include "mox/compiler.h"
#include "mox/config.h"
#include "mox/file.h"

#include <stdint.h>

MOX_EXTERN_C_BEGIN

/* Creates, with mode 0700, every directory on the way from `base` to the
 * last component of `relpath` (a file name, never created): "a/b/f" makes
 * "base/a" and "base/a/b". Existing directories count as created. 0 on
 * success; -30 when `relpath` holds no "/" (nothing is created); otherwise
 * the negated errno of the creation that failed, after an error line in
 * the log. Suspends. */
int mkdir_parent(const char *base, const char *relpath);

/* Sets ".type" to `magic` and ".mtime_ms" to the current wall-clock time in
 * `cfg` (which keeps them), and writes the store's text over `file` from
 * offset 0, padded with blanks and a final newline to a record of the
 * larger of `size` and the file's current size, so an older, longer
 * version is always covered and the file is never truncated; then syncs
 * the data. `path` names the file in log lines only. `size` must hold the
 * text: a longer text is a bug that ends the program. 0 on success; -80
 * for EIO or a short write, -30 for a magic that cannot be stored, else
 * the negated runtime code of the failing call's errno, with an error line
 * in the log. ENOTCONN (the cluster mount is gone) ends the program.
 * Suspends. */
int info_file_write(const char *path, mox_co_file *file, const char *magic, uint32_t size,
                    mox_config *cfg);

/* Reads the file's content, expected to be about `size` bytes, in one read
 * into a buffer of `size` + 4096 bytes (2 * `size` above 4096). 0 and in
 * `*text` a new NUL-terminated string without trailing white space, freed
 * by the caller with __mox_free; or, with `*text` untouched: -80 for EIO,
 * the negated runtime code of another read error, -29 (logged) when the
 * read filled the whole buffer and more data may follow. Suspends. */
int info_file_read(const char *path, mox_co_file *file, uint32_t size, char **text);

/* Reads the file as info_file_read does and parses it. 0 and in `*cfg` a
 * new store with the file's pairs except ".type" (".mtime_ms" stays),
 * freed by the caller with mox_free_config; or, with `*cfg` untouched,
 * the read's error, -27 for an empty file, -29 (logged) for text that is
 * not configuration text, a missing ".type" or one that differs from
 * `magic`. Suspends. */
int info_file_parse(const char *path, mox_co_file *file, const char *magic, uint32_t size,
                    mox_config **cfg);

MOX_EXTERN_C_END

#endif
