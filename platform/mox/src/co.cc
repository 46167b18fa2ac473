// Stackful coroutines on Boost.Context fibers, their waits and migration
// between the loop thread and the worker thread.
#include "internal.h"
#include "mox/log.h"
#include "mox/misc.h"

#include <boost/asio/post.hpp>
#include <boost/context/protected_fixedsize_stack.hpp>
#include <cstdarg>
#include <cstdio>
#include <new>
#include <pthread.h>
#include <system_error>

#if defined(MOX_ASAN)
#include <sanitizer/common_interface_defs.h>
#endif
#if defined(MOX_TSAN)
#include <sanitizer/tsan_interface.h>
#endif

namespace ctx = boost::context;
using mox_detail::CoNext;
using mox_detail::CoState;

namespace
{

// Big enough for OpenSSL handshakes and formatted logging; pages are only
// committed when touched.
constexpr size_t kStackSize = 1024 * 1024;

thread_local mox_detail::ThreadState t_state;

// Tells the sanitizers that the thread is about to leave its current stack.
inline void switch_start(void **fake, const void *bottom, size_t size)
{
#if defined(MOX_ASAN)
    __sanitizer_start_switch_fiber(fake, bottom, size);
#else
    (void)fake;
    (void)bottom;
    (void)size;
#endif
}

inline void switch_finish(void *fake, const void **bottom_old, size_t *size_old)
{
#if defined(MOX_ASAN)
    __sanitizer_finish_switch_fiber(fake, bottom_old, size_old);
#else
    (void)fake;
    (void)bottom_old;
    (void)size_old;
#endif
}

// Stack allocator that remembers the stack so that sanitizers can be told.
struct RecordingStack {
    mox_co *co;
    ctx::stack_context allocate()
    {
        co->stack = ctx::protected_fixedsize_stack(kStackSize).allocate();
        return co->stack;
    }
    void deallocate(ctx::stack_context &sc) noexcept
    {
        ctx::protected_fixedsize_stack(kStackSize).deallocate(sc);
    }
};

// The coroutine's fiber with its own stack; throws std::bad_alloc when the
// stack cannot be mapped.
ctx::fiber make_fiber(mox_co *co);

const void *stack_bottom(const mox_co *co)
{
    return static_cast<const char *>(co->stack.sp) - co->stack.size;
}

void finish_ended(mox_co *co)
{
    // Joiners are woken on the loop thread, where wait queues live.
    co->timer.reset();
    mox_co_waitqueue_wakeup_all(&co->joiners);
    if (co->ctx != nullptr) {
        mox_context_put(co->ctx);
        co->ctx = nullptr;
    }
#if defined(MOX_TSAN)
    __tsan_destroy_fiber(co->tsan_fiber);
#endif
}

int wait_common(int32_t *ms, bool cancelable, bool park)
{
    mox_co *co = mox_current_co();
    mox_loop *loop = mox_current_loop();
    if (co == nullptr || loop == nullptr)
        mox_bug(__FILE__, __LINE__, __func__); // waits need a coroutine on a loop
    uint64_t start = mox_detail::now_ms_of(loop);
    uint64_t limit = UINT64_MAX;
    if (!park) {
        int rc = mox_context_check(co->ctx);
        if (rc == -ECANCELED && !cancelable)
            rc = 0;
        if (rc != 0) {
            *ms = 0;
            return rc;
        }
        limit = start + (*ms > 0 ? static_cast<uint64_t>(*ms) : 0);
        uint64_t deadline = mox_context_deadline_ms(co->ctx);
        if (deadline != 0 && deadline < limit)
            limit = deadline;
    }
    co->state = park ? CoState::Parked : CoState::Waiting;
    co->wait_result = -ETIMEDOUT;
    uint64_t gen = ++co->wait_gen;
    if (!park) {
        if (!co->timer)
            co->timer = std::make_unique<boost::asio::steady_timer>(loop->io);
        co->timer->expires_after(std::chrono::milliseconds(limit > start ? limit - start : 0));
        co->timer->async_wait([co, gen](const boost::system::error_code &ec) {
            if (ec || co->wait_gen != gen || co->state != CoState::Waiting)
                return;
            co->wait_result = -ETIMEDOUT;
            co->state = CoState::Ready;
            mox_detail::resume(co);
        });
    }
    if (cancelable)
        mox_list_add_tail(&loop->cancelable, &co->cancel_link.node);
    mox_detail::suspend(co);
    if (cancelable)
        mox_list_del_init(&co->cancel_link.node);
    if (park)
        return 0;
    loop = mox_current_loop();
    uint64_t now = mox_detail::now_ms_of(loop);
    uint64_t end = start + static_cast<uint64_t>(*ms > 0 ? *ms : 0);
    *ms = (co->wait_result == 0 && now < end) ? static_cast<int32_t>(end - now) : 0;
    return co->wait_result;
}

void wake(mox_co *co, int result)
{
    if (co->state != CoState::Waiting && co->state != CoState::Parked)
        return;
    co->wait_result = result;
    co->state = CoState::Ready;
    ++co->wait_gen; // a pending timer no longer applies
    if (co->timer)
        co->timer->cancel();
    mox_detail::schedule(co);
}

} // namespace

namespace mox_detail
{

MOX_NOINLINE ThreadState *tls()
{
    ThreadState *s = &t_state;
    // Keep the address from being reused across a switch to another thread.
    asm volatile("" : "+r"(s));
    return s;
}

uint64_t now_ms_of(mox_loop *loop)
{
    uint64_t now = get_abs_time_us() / 1000;
    if (loop != nullptr)
        loop->now_ms = now;
    return now;
}

void resume(mox_co *co)
{
    ThreadState *st = tls();
    mox_co *prev = st->co;
    st->co = co;
    st->proc = co->proc;
    if (st->loop != nullptr)
        now_ms_of(st->loop);
    co->state = CoState::Running;
    void *fake = nullptr;
    switch_start(&fake, stack_bottom(co), co->stack.size);
#if defined(MOX_TSAN)
    co->tsan_from = __tsan_get_current_fiber();
    __tsan_switch_to_fiber(co->tsan_fiber, 0);
#endif
    co->self = std::move(co->self).resume();
#if defined(MOX_TSAN)
    if (co->state == CoState::Ended)
        __tsan_switch_to_fiber(co->tsan_from, 0);
#endif
    switch_finish(fake, nullptr, nullptr);
    st = tls();
    st->co = prev;

    if (co->state == CoState::Ended) {
        if (st->loop != nullptr) {
            finish_ended(co);
        } else {
            boost::asio::post(co->loop->io, [co] { finish_ended(co); });
        }
        return;
    }
    CoNext next = co->next;
    co->next = CoNext::Stay;
    if (next == CoNext::ToWorker) {
        mox_worker *w = co->target_worker;
        std::lock_guard<std::mutex> lock(w->mu);
        // Started on first use: most runs never block, and a thread that
        // is never started costs nothing at start or exit.
        if (!w->thread.joinable())
            start_worker(co->proc, w);
        w->queue.push_back(co);
        w->cv.notify_one();
    } else if (next == CoNext::ToLoop) {
        schedule(co);
    } else if (st->loop == nullptr && co->state != CoState::Ready) {
        // On the worker only migration back or the end may suspend.
        mox_bug(__FILE__, __LINE__, __func__);
    }
}

void schedule(mox_co *co)
{
    boost::asio::post(co->loop->io, [co] {
        if (co->state == CoState::Ready)
            resume(co);
    });
}

void suspend(mox_co *co)
{
    void *fake = nullptr;
    switch_start(&fake, co->from_bottom, co->from_size);
#if defined(MOX_TSAN)
    __tsan_switch_to_fiber(co->tsan_from, 0);
#endif
    co->caller = std::move(co->caller).resume();
    switch_finish(fake, &co->from_bottom, &co->from_size);
}

void start_worker(mox_process *proc, mox_worker *w)
{
    try {
        w->thread = std::thread(worker_main, proc, w);
    } catch (const std::system_error &) {
        mox_fatal("can't start the worker thread");
    }
    pthread_setname_np(w->thread.native_handle(), "worker");
}

void worker_main(mox_process *proc, mox_worker *w)
{
    apply_blocked_signals();
    install_thread_altstack();
    ThreadState *st = tls();
    st->proc = proc;
    st->loop = nullptr;
    for (;;) {
        mox_co *co;
        {
            std::unique_lock<std::mutex> lock(w->mu);
            w->cv.wait(lock, [w] { return w->stop || !w->queue.empty(); });
            if (w->queue.empty())
                return;
            co = w->queue.front();
            w->queue.pop_front();
        }
        co->state = CoState::Ready;
        resume(co);
    }
}

} // namespace mox_detail

extern "C" {

MOX_NOINLINE mox_process *mox_current_process(void)
{
    return mox_detail::tls()->proc;
}
MOX_NOINLINE mox_loop *mox_current_loop(void)
{
    return mox_detail::tls()->loop;
}
MOX_NOINLINE mox_co *mox_current_co(void)
{
    return mox_detail::tls()->co;
}

mox_co *mox_co_create(mox_context *context, mox_co_fn fn, void *arg)
{
    mox_loop *loop = mox_current_loop();
    if (loop == nullptr)
        mox_bug(__FILE__, __LINE__, __func__); // coroutines are made on a loop
    auto *pi = mox_detail::impl(loop->proc);
    auto owned = std::make_unique<mox_co>();
    mox_co *co = owned.get();
    mox_list_init(&co->wait_link.node);
    co->wait_link.owner = co;
    mox_list_init(&co->cancel_link.node);
    co->cancel_link.owner = co;
    mox_co_waitqueue_init(&co->joiners);
    co->fn = fn;
    co->arg = arg;
    co->loop = loop;
    co->proc = loop->proc;
    co->ctx = context != nullptr ? mox_context_get(context) : nullptr;
#if defined(MOX_TSAN)
    co->tsan_fiber = __tsan_create_fiber(0);
#endif
    try {
        co->self = make_fiber(co);
    } catch (const std::bad_alloc &) {
        // No address space for the stack (mmap failed).
        mox_err("out of memory for a coroutine stack", __FILE__, __LINE__, __func__);
    }
    {
        std::lock_guard<std::mutex> lock(pi->co_mu);
        pi->coroutines.push_back(std::move(owned));
    }
    mox_detail::schedule(co);
    return co;
}

} // extern "C"

namespace
{

ctx::fiber make_fiber(mox_co *co)
{
    return ctx::fiber(std::allocator_arg, RecordingStack{co}, [co](ctx::fiber &&from) {
        switch_finish(nullptr, &co->from_bottom, &co->from_size);
        co->caller = std::move(from);
        co->fn(co, co->arg);
        co->state = CoState::Ended;
        switch_start(nullptr, co->from_bottom, co->from_size);
        // ThreadSanitizer is told in resume(), once control is back on the
        // caller's stack: the frames that unwind from here are still ours.
        return std::move(co->caller);
    });
}

} // namespace

extern "C" {

void mox_co_set_name(mox_co *co, const char *fmt, ...)
{
    char buf[256];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    co->name = buf;
}

const char *mox_co_get_name(const mox_co *co)
{
    return co->name.c_str();
}

int mox_co_join(mox_co *co)
{
    mox_co *self = mox_current_co();
    if (self == co)
        mox_bug(__FILE__, __LINE__, __func__);
    while (co->state != CoState::Ended) {
        mox_co_waitqueue_add(&co->joiners, self);
        mox_co_park();
        mox_co_waitqueue_del(self);
    }
    return 0;
}

int mox_co_yield(void)
{
    mox_co *co = mox_current_co();
    if (co == nullptr || mox_current_loop() == nullptr)
        mox_bug(__FILE__, __LINE__, __func__);
    co->state = CoState::Ready;
    mox_detail::schedule(co);
    mox_detail::suspend(co);
    return 0;
}

void mox_co_park(void)
{
    int32_t ms = 0;
    wait_common(&ms, false, true);
}

int mox_co_wait_timeout(int32_t *ms)
{
    return wait_common(ms, false, false);
}

int mox_co_io_wait_cancelable(int32_t *ms)
{
    return wait_common(ms, true, false);
}

mox_list *mox_co_wait_link(mox_co *co)
{
    return &co->wait_link.node;
}

mox_context *mox_co_get_ctx(const mox_co *co)
{
    return co->ctx;
}

void mox_co_waitqueue_init(mox_co_waitqueue *q)
{
    mox_list_init(&q->waiters);
}

void mox_co_waitqueue_add(mox_co_waitqueue *q, mox_co *co)
{
    mox_list_del_init(&co->wait_link.node);
    mox_list_add_tail(&q->waiters, &co->wait_link.node);
}

void mox_co_waitqueue_del(mox_co *co)
{
    mox_list_del_init(&co->wait_link.node);
}

void mox_co_waitqueue_wakeup_all(mox_co_waitqueue *q)
{
    while (!mox_list_empty(&q->waiters)) {
        mox_list *link = q->waiters.next;
        mox_list_del_init(link);
        wake(mox_detail::owner_of(link), 0);
    }
}

void mox_co_wakeup(mox_co *co)
{
    wake(co, 0);
}

void mox_co_set_ctx(mox_context *context)
{
    mox_co *co = mox_current_co();
    if (co == nullptr)
        mox_bug(__FILE__, __LINE__, __func__);
    mox_context *old = co->ctx;
    co->ctx = context != nullptr ? mox_context_get(context) : nullptr;
    if (old != nullptr)
        mox_context_put(old);
}

void mox_co_ctx_set_timeout(int32_t ms)
{
    mox_co *co = mox_current_co();
    if (co == nullptr)
        mox_bug(__FILE__, __LINE__, __func__);
    mox_context *child = mox_context_alloc_child(co->ctx);
    mox_context_set_timeout(child, ms > 0 ? static_cast<uint32_t>(ms) : 0);
    mox_co_set_ctx(child);
    mox_context_put(child);
}

int mox_co_check_ctx(void)
{
    mox_co *co = mox_current_co();
    return co != nullptr ? mox_context_check(co->ctx) : 0;
}

mox_loop *mox_co_migrate_to_thread(mox_worker *worker)
{
    mox_co *co = mox_current_co();
    mox_loop *loop = mox_current_loop();
    if (co == nullptr || loop == nullptr || worker == nullptr)
        mox_bug(__FILE__, __LINE__, __func__);
    co->target_worker = worker;
    co->next = CoNext::ToWorker;
    co->state = CoState::Ready;
    mox_detail::suspend(co);
    return loop;
}

int mox_co_migrate_from_thread(mox_loop *loop)
{
    mox_co *co = mox_current_co();
    if (co == nullptr || mox_current_loop() != nullptr || loop != co->loop)
        mox_bug(__FILE__, __LINE__, __func__);
    co->next = CoNext::ToLoop;
    co->state = CoState::Ready;
    mox_detail::suspend(co);
    return 0;
}

} // extern "C"

namespace mox_detail
{

void cancel_waiters(mox_loop *loop)
{
    for (mox_list *l = loop->cancelable.next; l != &loop->cancelable;) {
        mox_co *co = mox_detail::owner_of(l);
        l = l->next;
        if (mox_context_check(co->ctx) == -ECANCELED)
            wake(co, -ECANCELED);
    }
}

} // namespace mox_detail
