#include "co_runner.h"

#include "mox/mox.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <getopt.h>
#include <thread>

namespace tarn_test
{

void run_in_coroutine(const std::function<void()> &fn, int limit_s)
{
    struct Run {
        mox_process proc{};
        const std::function<void()> *fn;
    } run{{}, &fn};
    // A broken wait or deadline must fail the test in seconds, saying so,
    // not leave it to the test driver's time-out.
    std::promise<void> done;
    std::thread watchdog([limit_s, finished = done.get_future()] {
        if (finished.wait_for(std::chrono::seconds(limit_s)) == std::future_status::timeout) {
            fprintf(stderr,
                    "run_in_coroutine: the coroutine did not finish within %d s (a wait or "
                    "a deadline that never ended)\n",
                    limit_s);
            std::_Exit(1);
        }
    });
    constexpr mox_co_fn body = [](mox_co *, void *arg) -> int32_t {
        auto *r = static_cast<Run *>(arg);
        (*r->fn)();
        mox_process_terminate(&r->proc);
        return 0;
    };
    mox_job job{};
    mox_process_init(&run.proc);
    mox_job_init(
        &run.proc, &job,
        [](mox_job *, void *arg) -> void * { return mox_co_create(nullptr, body, arg); }, &run);
    mox_job_wakeup(&job);
    if (mox_process_start(&run.proc, "eventloop") != 0)
        mox_fatal("can't start the test process");
    mox_process_wait(&run.proc);
    mox_process_fini(&run.proc);
    done.set_value();
    watchdog.join();
}

void run_command(void (*parse)(int, char **), int (*exec)(), std::vector<std::string> args,
                 int deadline_ms)
{
    std::vector<char *> argv;
    for (auto &a : args)
        argv.push_back(a.data());
    optind = 0;
    opterr = 0;
    parse(static_cast<int>(argv.size()), argv.data());
    run_in_coroutine([&] {
        mox_co_ctx_set_timeout(deadline_ms);
        exec();
    });
    exit(0);
}

} // namespace tarn_test
