// Reference-counted contexts: an id for log lines, a deadline and a
// cancellation flag, both inherited by children.
#include "internal.h"
#include "mox/log.h"
#include "mox/misc.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

struct mox_context {
    std::atomic<int> refs{1};
    mox_context *parent = nullptr; // holds a reference
    std::string id;
    bool has_id = false;
    uint64_t deadline_ms = 0; // own deadline, 0 for none
    std::atomic<bool> cancelled{false};
};

extern "C" {

mox_context *mox_context_alloc(void)
{
    return new mox_context;
}

mox_context *mox_context_alloc_child(mox_context *parent)
{
    auto *c = new mox_context;
    if (parent != nullptr)
        c->parent = mox_context_get(parent);
    return c;
}

mox_context *mox_context_get(mox_context *ctx)
{
    if (ctx == nullptr)
        return nullptr; // a coroutine without a context hands out none
    ctx->refs.fetch_add(1, std::memory_order_relaxed);
    return ctx;
}

void mox_context_put(mox_context *ctx)
{
    while (ctx != nullptr) {
        int before = ctx->refs.fetch_sub(1, std::memory_order_acq_rel);
        if (before <= 0)
            mox_bug(__FILE__, __LINE__, __func__); // dropped more often than taken
        if (before != 1)
            return;
        mox_context *parent = ctx->parent;
        delete ctx;
        ctx = parent; // drop the child's reference to its parent
    }
}

const char *mox_context_get_id(const mox_context *ctx)
{
    return ctx->has_id ? ctx->id.c_str() : nullptr;
}

mox_context *mox_context_set_id(mox_context *ctx, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    char *s = nullptr;
    int n = vasprintf(&s, fmt, ap);
    va_end(ap);
    if (n < 0)
        mox_err("out of memory", __FILE__, __LINE__, __func__);
    ctx->id.assign(s, static_cast<size_t>(n));
    ctx->has_id = true;
    free(s);
    return ctx;
}

void mox_context_set_timeout(mox_context *ctx, uint32_t ms)
{
    ctx->deadline_ms = mox_detail::now_ms_of(mox_current_loop()) + ms;
}

uint64_t mox_context_deadline_ms(const mox_context *ctx)
{
    uint64_t best = 0;
    for (; ctx != nullptr; ctx = ctx->parent) {
        if (ctx->deadline_ms != 0 && (best == 0 || ctx->deadline_ms < best))
            best = ctx->deadline_ms;
    }
    return best;
}

void mox_context_cancel(mox_context *ctx)
{
    ctx->cancelled.store(true);
    if (mox_loop *loop = mox_current_loop())
        mox_detail::cancel_waiters(loop);
}

int mox_context_check(const mox_context *ctx)
{
    if (ctx == nullptr)
        return 0;
    for (const mox_context *c = ctx; c != nullptr; c = c->parent) {
        if (c->cancelled.load())
            return -ECANCELED;
    }
    uint64_t deadline = mox_context_deadline_ms(ctx);
    if (deadline != 0 && get_abs_time_us() / 1000 >= deadline)
        return -ETIMEDOUT;
    return 0;
}

} // extern "C"
