/* Directory handles on a gateway's tree, over a gateway client handle.
 * Listings come from the gateway in pages; a handle reads the next page
 * when the cursor runs past the current one. */
#ifndef EMBER_AR_IO_H
#define EMBER_AR_IO_H

#include "ember/ember.h"
#include "mox/compiler.h"

#include <stdint.h>

MOX_EXTERN_C_BEGIN

typedef struct ar_io_dir ar_io_dir;

/* An entry cursor; `name` comes first. Owned by the directory handle. */
typedef struct ar_io_dir_entry {
    const char *name; /* no slash; valid until the next read */
    uint32_t mode;    /* the entry's file mode as the gateway stores it */
} ar_io_dir_entry;

/* The operations a directory handle carries. All but release_entry may
 * suspend the calling coroutine. */
typedef struct ar_io_dir_ops {
    /* 1 and *cursor on the first entry, 0 for an empty directory, or a
     * negative code. `unused` is ignored (pass null). */
    int (*read_first)(ar_io_dir *dir, ar_io_dir_entry *unused, ar_io_dir_entry **cursor, int flags);
    /* 1 with the cursor on the next entry, 0 at the end, or a negative
     * code. */
    int (*read_next)(ar_io_dir *dir, ar_io_dir_entry *cursor, int flags);
    /* Releases the cursor. */
    void (*release_entry)(ar_io_dir *dir, ar_io_dir_entry *cursor);
    /* 0 and *child for the subdirectory `name`; -8 when it does not exist,
     * -9 when it is not a directory. */
    int (*open_child)(ar_io_dir *dir, const char *name, ar_io_dir **child, int flags);
    /* Frees the handle (ar_io_dir_put calls it), so that handles of other
     * kinds, such as in-memory trees, are released by their own code. */
    void (*put)(ar_io_dir *dir);
} ar_io_dir_ops;

struct ar_io_dir {
    const ar_io_dir_ops *ops;
};

/* Opens the directory `path` of the client's gateway: 0 and *dir (holding
 * a reference to the client), -8 when it does not exist, -9 when it is not
 * a directory, or another negative code. Suspends. */
int ar_io_open_ember_dir_cl(ember_client *client, const char *path, ar_io_dir **dir, int flags);
/* Releases a directory handle; null is ignored. Does not suspend. */
void ar_io_dir_put(ar_io_dir *dir);

MOX_EXTERN_C_END

#endif
