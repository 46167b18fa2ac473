#include "co_host.h"

#include "mox/mox.h"

#include <condition_variable>
#include <mutex>

namespace tarn_fuzz
{

namespace
{

// The fuzzer's thread hands work to one coroutine that parks between
// inputs; a job, which runs on the loop thread, wakes it.
struct Host {
    mox_process proc{};
    mox_job start_job{};
    mox_job wake_job{};
    mox_co *co = nullptr;
    std::mutex mu;
    std::condition_variable cv;
    const std::function<void()> *work = nullptr;
    bool idle = false;
};

Host host;

void mark_idle()
{
    std::lock_guard<std::mutex> lock(host.mu);
    host.work = nullptr;
    host.idle = true;
    host.cv.notify_all();
}

int32_t serve(mox_co *, void *)
{
    for (;;) {
        // Whoever sees `idle` posts the next wake-up; it runs on this loop
        // only after the park below.
        mark_idle();
        mox_co_park();
        (*host.work)();
    }
}

void *start(mox_job *, void *)
{
    host.co = mox_co_create(nullptr, serve, nullptr);
    return nullptr;
}

void *wake(mox_job *, void *)
{
    mox_co_wakeup(host.co);
    return nullptr;
}

void wait_idle(std::unique_lock<std::mutex> &lock)
{
    host.cv.wait(lock, [] { return host.idle; });
}

} // namespace

void run_in_coroutine(const std::function<void()> &fn)
{
    static bool started = [] {
        __mox_log_level = -1; // rejected inputs would flood standard error
        mox_process_init(&host.proc);
        mox_job_init(&host.proc, &host.start_job, start, nullptr);
        mox_job_init(&host.proc, &host.wake_job, wake, nullptr);
        mox_job_wakeup(&host.start_job);
        if (mox_process_start(&host.proc, "eventloop") != 0)
            mox_fatal("can't start the fuzzing process");
        return true;
    }();
    (void)started;
    std::unique_lock<std::mutex> lock(host.mu);
    wait_idle(lock);
    host.idle = false;
    host.work = &fn;
    mox_job_wakeup(&host.wake_job);
    wait_idle(lock);
}

} // namespace tarn_fuzz
