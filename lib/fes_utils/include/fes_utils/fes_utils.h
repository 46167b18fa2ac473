/* Listing of an account's files on a gateway: a directory tree read through
 * a directory handle into one list of records, and the name rules the
 * listing applies. A C interface; C programs include this header and link
 * the library. */
#ifndef TARN_FES_UTILS_H
#define TARN_FES_UTILS_H

#include "ember/ar_io.h"
#include "mox/compiler.h"
#include "mox/list.h"

#include <stdint.h>

MOX_EXTERN_C_BEGIN

/* File-type bits of `mode` and the two types the listing keeps. */
#define FES_MODE_TYPE 0xF000u
#define FES_MODE_DIR 0x4000u
#define FES_MODE_REG 0x8000u

/* One listed entry, allocated in one piece with its path stored inline and
 * sized for exactly that path. */
typedef struct dirlist_entry {
    mox_list link;                /* membership in an entry list */
    char *name;                   /* last component, inside `path`; "" for the root */
    struct dirlist_entry *parent; /* null for the root */
    int32_t depth;                /* 0 for the root */
    uint32_t mode;                /* as the gateway reports it */
    uint64_t size;                /* not filled by the listing: 0 */
    int64_t mtime_ms;             /* not filled by the listing: 0 */
    char path[];                  /* full path on the gateway, NUL-terminated */
} dirlist_entry;

/* The record that holds list node `l`. */
static inline dirlist_entry *dirlist_entry_of(mox_list *l)
{
    return mox_container_of(l, dirlist_entry, link);
}

/* Lists the directory `path` (as the gateway knows it, e.g. "/acc") through
 * `dir`, which the caller keeps and releases. The records (a root record
 * for `path` first, then, with `recursive`, the whole tree in depth-first
 * pre-order, each directory's entries in the handle's order) are put at the
 * front of `out`. Only directories and regular files are listed; a
 * subdirectory that has vanished keeps its record without children. 0, or
 * the negative code of the failed handle operation, with nothing added to
 * `out`. The records belong to whoever holds `out`. Suspends while the
 * handle talks to the gateway. */
int32_t list_dir_entries(ar_io_dir *dir, const char *path, int recursive, mox_list *out);

/* Lists one directory level (and, with `recursive`, everything below it)
 * of `dir`, whose own record `parent` is already in a list; the new records
 * go right after `insert_after`. Same result as list_dir_entries; nothing is
 * inserted on failure. Deep trees need no stack of their own. Suspends. */
int32_t list_dir_entries_r(ar_io_dir *dir, dirlist_entry *parent, int recursive,
                           dirlist_entry *insert_after);

/* Unlinks and frees every record of the list `head`, which is left empty
 * and reusable. Does not suspend. */
void free_dirlist_entries(mox_list *head);

/* 0 when `path` may be listed, non-zero otherwise; every path is accepted
 * here. Does not suspend. */
int fes_check_path(const char *path);

/* Non-zero when the entry name `name` is reserved and left out of
 * listings; no name is reserved here. Does not suspend. */
int fes_is_reserved_name(const char *name);

MOX_EXTERN_C_END

#endif
