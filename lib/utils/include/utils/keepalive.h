/* A keepalive registry keeps objects alive for a fixed idle time after their
 * last use. The owner embeds a keepalive_entry in each object and marks it
 * whenever the object is used: the first mark of an idle object calls
 * `on_activate` (the owner takes a hold), and an object left unmarked for
 * the timeout is unlinked by the registry's coroutine, which then calls
 * `on_release` (the owner drops the hold). Everything runs on one event
 * loop thread, so nothing here locks. Callbacks may call keepalive_del on
 * any entry and, while the registry is not stopping, mark entries. */
#ifndef TARN_UTILS_KEEPALIVE_H
#define TARN_UTILS_KEEPALIVE_H

#include "mox/co.h"
#include "mox/compiler.h"
#include "mox/list.h"

#include <stdint.h>

MOX_EXTERN_C_BEGIN

typedef struct keepalive_entry keepalive_entry;
typedef void (*keepalive_fn)(keepalive_entry *entry);

/* Bit of keepalive_list.flags: set by keepalive_list_fini. */
#define KEEPALIVE_STOPPING 0x01

typedef struct keepalive_list {
    mox_list entries;         /* held entries, oldest last access first */
    int32_t timeout_ms;       /* idle time before release; > 0 */
    keepalive_fn on_activate; /* an idle entry is marked, before it is linked */
    keepalive_fn on_release;  /* an entry has been unlinked */
    uint8_t flags;            /* KEEPALIVE_STOPPING; other bits are the owner's */
    mox_co_waitqueue waitq;   /* where the registry's coroutine sleeps */
    mox_co *co;               /* the registry's coroutine; null when not running */
} keepalive_list;

struct keepalive_entry {
    mox_list link;           /* in list->entries while held, else self-linked */
    uint64_t last_access_ms; /* loop-clock time of the last mark */
    keepalive_list *list;    /* the registry the entry belongs to */
};

/* Sets up `list` and starts its coroutine in a child of `ctx` whose id ends
 * in "keepalive_" and `name`; returns the coroutine (also in list->co).
 * `timeout_ms` must be positive and `ctx` (null allowed) must carry no
 * deadline, since the registry runs until keepalive_list_fini: anything
 * else is reported as a bug and ends the program. Call on the loop thread;
 * does not suspend. */
mox_co *keepalive_list_init(keepalive_list *list, int32_t timeout_ms, const char *name,
                            keepalive_fn on_activate, keepalive_fn on_release, mox_context *ctx);

/* Stops the registry: its coroutine releases every held entry, oldest
 * first, and ends; returns after that, with list->co null. Nothing for a
 * registry whose coroutine never ran or has ended; a second call is a bug.
 * Suspends the calling coroutine (not the registry's own). */
void keepalive_list_fini(keepalive_list *list);

/* Prepares `entry` for `list`: not held, last access now. Does not suspend. */
void keepalive_init(keepalive_entry *entry, keepalive_list *list);

/* Marks `entry` used now and moves it to the tail; an entry that was not
 * held is activated first (on_activate). Marking for a stopping or ended
 * registry is a bug. Does not suspend (the callback may). */
void keepalive_mark_accessed(keepalive_entry *entry);

/* Unlinks a held entry and calls on_release with it; an entry that is not
 * held is left alone. Allowed while the registry stops. Does not suspend
 * (the callback may). */
void keepalive_del(keepalive_entry *entry);

/* The registry's coroutine function, started by keepalive_list_init with
 * the registry as `arg`; not for direct calls. Returns 0 once stopped. */
int32_t keepalive_co(mox_co *co, void *arg);

MOX_EXTERN_C_END

#endif
