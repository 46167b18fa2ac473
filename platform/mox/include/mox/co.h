/* Stackful coroutines, contexts with deadlines, wait queues and migration
 * to the worker thread. Everything here runs on the loop thread unless it
 * says otherwise. Calls marked "suspends" may let other coroutines run. */
#ifndef MOX_CO_H
#define MOX_CO_H

#include "mox/compiler.h"
#include "mox/list.h"
#include "mox/process.h"

#include <stdint.h>

MOX_EXTERN_C_BEGIN

typedef struct mox_context mox_context;
typedef int32_t (*mox_co_fn)(mox_co *co, void *arg);

typedef struct mox_co_waitqueue {
    mox_list waiters; /* wait links of waiting coroutines */
} mox_co_waitqueue;

/* A new coroutine that runs fn(co, arg) on the current loop, in `ctx`
 * (null for none; the coroutine takes its own reference). It starts once
 * the caller suspends or returns to the loop. The handle stays valid until
 * the process is freed, so it may be joined after the coroutine has ended. */
mox_co *mox_co_create(mox_context *ctx, mox_co_fn fn, void *arg);
void mox_co_set_name(mox_co *co, const char *fmt, ...) MOX_PRINTF(2, 3);
const char *mox_co_get_name(const mox_co *co);
/* Suspends until `co` has ended; 0. */
int mox_co_join(mox_co *co);
/* Lets the other ready coroutines run; suspends. 0. */
int mox_co_yield(void);

/* Suspends until woken (0, with *ms lowered to the time left) or until *ms
 * milliseconds have passed (-110, *ms set to 0). The context's deadline
 * bounds the wait: -110 once it has passed. */
int mox_co_wait_timeout(int32_t *ms);
/* As mox_co_wait_timeout, and returns -125 (ECANCELED) at once when the
 * context (or an ancestor) is cancelled, also while waiting. */
int mox_co_io_wait_cancelable(int32_t *ms);

/* Suspends until mox_co_wakeup, ignoring deadlines and cancellation: for
 * code that must see an operation it started through to its completion. */
void mox_co_park(void);

/* The coroutine's wait link: linked into a wait queue while it waits there. */
mox_list *mox_co_wait_link(mox_co *co);
mox_context *mox_co_get_ctx(const mox_co *co);

void mox_co_waitqueue_init(mox_co_waitqueue *q);
/* Links `co`'s wait link at the tail of `q`. */
void mox_co_waitqueue_add(mox_co_waitqueue *q, mox_co *co);
/* Takes `co`'s wait link out of whatever queue holds it; harmless if none. */
void mox_co_waitqueue_del(mox_co *co);
/* Wakes every waiter of `q` and unlinks its link; `q` is empty afterwards. */
void mox_co_waitqueue_wakeup_all(mox_co_waitqueue *q);
/* Ends `co`'s current wait with 0; nothing if it is not waiting. */
void mox_co_wakeup(mox_co *co);

/* Contexts: reference counted, with an optional id and deadline. A child's
 * deadline never lies after its parent's, and cancelling a context
 * cancels its children. */
mox_context *mox_context_alloc(void);
mox_context *mox_context_alloc_child(mox_context *parent);
/* Adds a reference and returns `ctx`; null (no context) gives null. */
mox_context *mox_context_get(mox_context *ctx);
void mox_context_put(mox_context *ctx);
const char *mox_context_get_id(const mox_context *ctx);
/* Sets the id; returns the context (the caller goes on with it). */
mox_context *mox_context_set_id(mox_context *ctx, const char *fmt, ...) MOX_PRINTF(2, 3);
/* Sets the deadline to `ms` milliseconds from now (the loop clock). */
void mox_context_set_timeout(mox_context *ctx, uint32_t ms);
/* The effective deadline in loop-clock milliseconds, 0 for none. */
uint64_t mox_context_deadline_ms(const mox_context *ctx);
void mox_context_cancel(mox_context *ctx);
/* 0 while usable; -110 past the deadline; -125 when cancelled. */
int mox_context_check(const mox_context *ctx);

/* The current coroutine uses `ctx` (null for none) from now on, holding its
 * own reference; the old context's reference is dropped. */
void mox_co_set_ctx(mox_context *ctx);
/* The current coroutine goes on in a new child of its context that
 * expires `ms` milliseconds from now. */
void mox_co_ctx_set_timeout(int32_t ms);
/* 0 while the current coroutine's context is usable, else as
 * mox_context_check. Every suspending runtime call checks this first. */
int mox_co_check_ctx(void);

/* Moves the current coroutine to `worker`, where blocking calls do not stall
 * the loop; returns the loop to come back to. Suspends. */
mox_loop *mox_co_migrate_to_thread(mox_worker *worker);
/* Moves the coroutine back onto `loop`; 0. Suspends. */
int mox_co_migrate_from_thread(mox_loop *loop);

MOX_EXTERN_C_END

#endif
