// Coroutine sleeps, named coroutines in child contexts and time-limited
// stretches of a coroutine.
#include "mox/log.h"
#include "utils/mox_helpers.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace
{

// A wait with no queue and nobody to wake it is a sleep; its time-out is
// the normal end.
int sleep_result(int rc)
{
    return rc == -ETIMEDOUT ? 0 : rc;
}

} // namespace

extern "C" {

int mox_co_sleep(int32_t ms)
{
    int32_t left = ms;
    return sleep_result(mox_co_wait_timeout(&left));
}

int mox_co_sleep_cancelable(int32_t ms)
{
    int32_t left = ms;
    return sleep_result(mox_co_io_wait_cancelable(&left));
}

mox_co *mox_co_create_child(mox_context *ctx, mox_co_fn fn, void *arg, const char *fmt, ...)
{
    mox_context *child = mox_context_alloc_child(ctx);
    char name[128];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(name, sizeof name, fmt, ap);
    va_end(ap);
    const char *parent_id = ctx != nullptr ? mox_context_get_id(ctx) : nullptr;
    if (parent_id != nullptr)
        child = mox_context_set_id(child, "%s%s", parent_id, name);
    else
        child = mox_context_set_id(child, "%s", name);
    mox_co *co = mox_co_create(child, fn, arg);
    mox_co_set_name(co, "%s", mox_context_get_id(child));
    mox_context_put(child);
    return co;
}

mox_context *mox_co_ctx_move_to_child(int32_t timeout_ms)
{
    mox_co *co = mox_current_co();
    MOX_BUG_ON(timeout_ms <= 0 || co == nullptr, "utils", "mox_co_ctx_move_to_child");
    mox_context *prev = mox_co_get_ctx(co);
    if (prev != nullptr)
        mox_context_get(prev);
    mox_co_ctx_set_timeout(timeout_ms);
    return prev;
}

void mox_co_ctx_move_from_child(mox_context *prev)
{
    mox_co_set_ctx(prev);
    if (prev != nullptr)
        mox_context_put(prev);
}

} // extern "C"
