// Runtime internals shared by the runtime's own source files.
#pragma once

#include "mox/co.h"
#include "mox/process.h"

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/context/fiber.hpp>
#include <boost/context/stack_context.hpp>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct mox_loop {
    boost::asio::io_context io;
    mox_process *proc = nullptr;
    uint64_t now_ms = 0;
    mox_list cancelable; // coroutines in a cancelable wait (mox_co::cancel_link)
};

struct mox_worker {
    std::mutex mu;
    std::condition_variable cv;
    std::deque<mox_co *> queue;
    bool stop = false;
    std::thread thread;
};

namespace mox_detail
{

enum class CoState { Ready, Running, Waiting, Parked, Ended };

// A list node that knows its coroutine: a standard-layout record, so the
// node leads back to its owner without offsetof on the coroutine itself.
struct CoLink {
    mox_list node;
    mox_co *owner;
};

inline mox_co *owner_of(mox_list *node)
{
    return mox_container_of(node, CoLink, node)->owner;
}
enum class CoNext { Stay, ToWorker, ToLoop };

} // namespace mox_detail

struct mox_co {
    mox_detail::CoLink wait_link;   // in a wait queue while the coroutine waits there
    mox_detail::CoLink cancel_link; // in mox_loop::cancelable during a cancelable wait
    mox_context *ctx = nullptr;
    std::string name;
    mox_co_fn fn = nullptr;
    void *arg = nullptr;
    mox_loop *loop = nullptr; // home loop
    mox_process *proc = nullptr;

    boost::context::fiber self;   // the coroutine while it is suspended
    boost::context::fiber caller; // whoever resumed it, while it runs
    boost::context::stack_context stack{};

    // Read by a joiner on the loop while a migrated coroutine runs on the
    // worker.
    std::atomic<mox_detail::CoState> state{mox_detail::CoState::Ready};
    mox_detail::CoNext next = mox_detail::CoNext::Stay;
    mox_worker *target_worker = nullptr;
    int wait_result = 0;
    uint64_t wait_gen = 0;
    std::unique_ptr<boost::asio::steady_timer> timer;
    mox_co_waitqueue joiners;

    // Sanitizer bookkeeping for stack switches.
    const void *from_bottom = nullptr;
    size_t from_size = 0;
    void *tsan_fiber = nullptr;
    void *tsan_from = nullptr;
};

namespace mox_detail
{

// Makes a failed operator new end through mox_err; idempotent.
void install_oom_handler();

struct ProcessImpl {
    mox_loop loop;
    mox_worker worker;
    std::thread loop_thread;
    std::string loop_name;
    std::vector<std::unique_ptr<mox_co>> coroutines; // records live until fini
    std::mutex co_mu;
    std::atomic<bool> started{false};
    int signal_fd = -1;
};

ProcessImpl *impl(mox_process *proc);

// Per-thread state; the accessors in co.cc never let the compiler reuse an
// address computed before a stack switch.
struct ThreadState {
    mox_process *proc = nullptr;
    mox_loop *loop = nullptr;
    mox_co *co = nullptr;
};
ThreadState *tls();

// Runs `co` on the calling thread until it suspends or ends, then carries
// out whatever it asked for (migration, end). Loop or worker thread only.
void resume(mox_co *co);
// Queues `co` to be resumed on its loop.
void schedule(mox_co *co);
// The calling coroutine gives the thread back to its scheduler.
void suspend(mox_co *co);
// Starts the worker thread; called with the worker's lock held.
void start_worker(mox_process *proc, mox_worker *w);
// Worker thread body.
void worker_main(mox_process *proc, mox_worker *w);
// Blocks the signals that mox_signal_block recorded, for a new thread.
void apply_blocked_signals();
// Sets up the alternate signal stack of a new runtime thread.
void install_thread_altstack();

uint64_t now_ms_of(mox_loop *loop);
// Ends the cancelable waits on `loop` whose context has been cancelled.
void cancel_waiters(mox_loop *loop);

// Runs `fn` as a blocking call: on the worker when called from a coroutine
// on a loop, directly otherwise. Checks the context's deadline first.
template <typename Fn> auto run_blocking(Fn &&fn) -> decltype(fn())
{
    int rc = mox_co_check_ctx();
    if (rc != 0)
        return rc;
    mox_co *co = mox_current_co();
    mox_loop *loop = mox_current_loop();
    if (co == nullptr || loop == nullptr)
        return fn();
    mox_loop *back = mox_co_migrate_to_thread(mox_process_worker(co->proc));
    auto result = fn();
    mox_co_migrate_from_thread(back);
    return result;
}

} // namespace mox_detail
