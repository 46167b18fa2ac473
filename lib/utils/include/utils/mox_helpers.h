/* Additions to the runtime: configuration getters with defaults, flags and
 * 128-bit identifiers in the configuration store, coroutine sleeps, named
 * coroutines in child contexts, and time-limited stretches of a coroutine.
 * They keep the runtime's conventions: 0 for success, negative codes for
 * failure, -8 for an absent key. The getters never log or suspend. */
#ifndef TARN_UTILS_MOX_HELPERS_H
#define TARN_UTILS_MOX_HELPERS_H

#include "mox/co.h"
#include "mox/compiler.h"
#include "mox/config.h"

#include <stddef.h>
#include <stdint.h>

MOX_EXTERN_C_BEGIN

/* As mox_config_getuint into the `size`-byte (1, 2, 4 or 8) unsigned
 * integer at `out`; for an absent key, 0 and the low `size` bytes of `def`
 * (the default cut to the target's width). -30 for any other size. */
int mox_config_getuint_def(const mox_config *cfg, const char *key, void *out, size_t size,
                           uint64_t def);

/* As mox_config_getstr; for an absent key, 0 and `*value` = `def` (the
 * pointer itself, not a copy). */
int mox_config_getstr_def(const mox_config *cfg, const char *key, const char **value,
                          const char *def);

/* Reads a flag: "1", "y", "yes" give 1 and "0", "n", "no" give 0, compared
 * exactly. 0 and `*flag` set; the getter's code (-8 for an absent key); or
 * -30 for any other word, "" included, with `*flag` untouched. */
int mox_config_getflag(const mox_config *cfg, const char *key, int32_t *flag);

/* As mox_config_getflag; for an absent key, 0 and `*flag` = `def`. An
 * invalid word still gives -30. */
int mox_config_getflag_def(const mox_config *cfg, const char *key, int32_t *flag, int32_t def);

/* Stores the 128-bit id (id[0], then id[1]) as 32 lower-case hex digits;
 * the result of mox_config_setstr. */
int mox_config_setmsrid(mox_config *cfg, const char *key, const uint64_t id[2]);

/* Reads an id stored by mox_config_setmsrid. 0 and both halves; the
 * getter's code when the key cannot be read; -29 when the value is not 32
 * characters or a half of 16 is not wholly a strtoull base-16 number (the
 * halves read before the bad one are already stored then). */
int mox_config_getmsrid(const mox_config *cfg, const char *key, uint64_t id[2]);

/* Suspends the calling coroutine for `ms` milliseconds: 0 when the time has
 * passed (or the context's deadline came first), 0 when woken early by
 * mox_co_wakeup, any other result of the wait unchanged. */
int mox_co_sleep(int32_t ms);

/* As mox_co_sleep, and returns -125 early when the coroutine's context is
 * cancelled. Suspends. */
int mox_co_sleep_cancelable(int32_t ms);

/* Starts fn(co, arg) in a new child of `ctx` (null for none) whose id is
 * the parent's id followed directly by the formatted name (cut to 127
 * characters), or the name alone when the parent has no id; the coroutine
 * bears that id as its name and holds the only reference to the child.
 * Returns the coroutine handle. Call on the loop thread; does not suspend. */
mox_co *mox_co_create_child(mox_context *ctx, mox_co_fn fn, void *arg, const char *fmt, ...)
    MOX_PRINTF(4, 5);

/* Moves the calling coroutine into a child of its context that expires
 * after `timeout_ms` (> 0; anything else is a bug) milliseconds. Returns
 * the previous context with a reference held for the caller, who must hand
 * it to mox_co_ctx_move_from_child on the same coroutine. Does not suspend. */
mox_context *mox_co_ctx_move_to_child(int32_t timeout_ms);

/* Puts the calling coroutine back into `prev` (from mox_co_ctx_move_to_child)
 * and drops that call's reference; the child context goes away. Does not
 * suspend. */
void mox_co_ctx_move_from_child(mox_context *prev);

MOX_EXTERN_C_END

#endif
