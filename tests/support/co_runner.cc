#include "co_runner.h"

#include "mox/mox.h"

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

void run_in_coroutine(const std::function<void()> &fn)
{
    Run run;
    run.fn = &fn;
    mox_job job{};
    mox_process_init(&run.proc);
    mox_job_init(&run.proc, &job, start, &run);
    mox_job_wakeup(&job);
    if (mox_process_start(&run.proc, "eventloop") != 0)
        mox_fatal("can't start the test process");
    mox_process_wait(&run.proc);
    mox_process_fini(&run.proc);
}

} // namespace tarn_test
