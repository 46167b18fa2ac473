#include "co_runner.h"

#include "mox/mox.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace tarn_test
{

namespace
{

struct Run {
    mox_process proc{};
    const std::function<void()> *fn = nullptr;
};

int32_t body(mox_co *, void *arg)
{
    auto *run = static_cast<Run *>(arg);
    (*run->fn)();
    mox_process_terminate(&run->proc);
    return 0;
}

void *start(mox_job *job, void *arg)
{
    (void)job;
    return mox_co_create(nullptr, body, arg);
}

} // namespace

void run_in_coroutine(const std::function<void()> &fn, int limit_s)
{
    Run run;
    run.fn = &fn;
    mox_job job{};
    // A broken wait or deadline must fail the test in seconds, saying so,
    // not leave it to the test driver's time-out.
    std::mutex mu;
    std::condition_variable cv;
    bool done = false;
    std::thread watchdog([&] {
        std::unique_lock<std::mutex> lock(mu);
        if (!cv.wait_for(lock, std::chrono::seconds(limit_s), [&] { return done; })) {
            fprintf(stderr,
                    "run_in_coroutine: the coroutine did not finish within %d s (a wait or "
                    "a deadline that never ended)\n",
                    limit_s);
            std::_Exit(1);
        }
    });
    mox_process_init(&run.proc);
    mox_job_init(&run.proc, &job, start, &run);
    mox_job_wakeup(&job);
    if (mox_process_start(&run.proc, "eventloop") != 0)
        mox_fatal("can't start the test process");
    mox_process_wait(&run.proc);
    mox_process_fini(&run.proc);
    {
        std::lock_guard<std::mutex> lock(mu);
        done = true;
    }
    cv.notify_one();
    watchdog.join();
}

} // namespace tarn_test
