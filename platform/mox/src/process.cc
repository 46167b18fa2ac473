// The process record: the loop thread, the worker thread, jobs, and the
// signals the loop takes over.
#include "internal.h"
#include "mox/asio.hpp"
#include "mox/errors.h"
#include "mox/log.h"
#include "mox/misc.h"

#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <initializer_list>
#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace
{

std::mutex g_sig_mu;
sigset_t g_blocked; // what mox_signal_block asked for, for later threads
bool g_blocked_set = false;

std::atomic<int> g_hold_depth{0}; // mox_signal_hold calls not yet released
std::atomic<int> g_held_signal{0};

// A SIGINT or SIGTERM taken from the loop's descriptor or from the pending
// set. Outside a hold, or at the second one, the run ends at once.
void note_signal(int sig)
{
    int none = 0;
    if (g_hold_depth.load() > 0 && g_held_signal.compare_exchange_strong(none, sig)) {
        mox_log(0, "received %s; stopping after the running step", mox_signal_name(sig));
        return;
    }
    mox_signal_exit(sig);
}

void read_signal(std::shared_ptr<boost::asio::posix::stream_descriptor> sd)
{
    auto info = std::make_shared<signalfd_siginfo>();
    sd->async_read_some(boost::asio::buffer(info.get(), sizeof *info),
                        [sd, info](const boost::system::error_code &ec, size_t n) {
                            if (ec || n != sizeof *info)
                                return;
                            note_signal(static_cast<int>(info->ssi_signo));
                            read_signal(sd);
                        });
}

// SIGINT and SIGTERM, when blocked, arrive through a signal descriptor on the
// loop: the run ends promptly with the conventional status, or at the end of
// a held step. Files that others read are always replaced by rename, so
// stopping mid-command leaves no torn file behind.
void watch_signals(mox_detail::ProcessImpl *pi)
{
    sigset_t set;
    sigemptyset(&set);
    {
        std::lock_guard<std::mutex> lock(g_sig_mu);
        if (!g_blocked_set)
            return;
        for (int sig : {SIGINT, SIGTERM}) {
            if (sigismember(&g_blocked, sig) == 1)
                sigaddset(&set, sig);
        }
    }
    if (sigisemptyset(&set))
        return;
    pi->signal_fd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (pi->signal_fd < 0)
        return;
    read_signal(
        std::make_shared<boost::asio::posix::stream_descriptor>(pi->loop.io, pi->signal_fd));
}

void loop_main(mox_process *proc, mox_detail::ProcessImpl *pi)
{
    mox_detail::apply_blocked_signals();
    mox_detail::install_thread_altstack();
    pthread_setname_np(pthread_self(), pi->loop_name.c_str());
    mox_detail::ThreadState *st = mox_detail::tls();
    st->proc = proc;
    st->loop = &pi->loop;
    mox_detail::now_ms_of(&pi->loop);
    auto guard = boost::asio::make_work_guard(pi->loop.io);
    pi->loop.io.run();
    st = mox_detail::tls();
    st->loop = nullptr;
    {
        std::lock_guard<std::mutex> lock(pi->worker.mu);
        pi->worker.stop = true;
    }
    pi->worker.cv.notify_all();
}

} // namespace

namespace mox_detail
{

ProcessImpl *impl(mox_process *proc)
{
    return static_cast<ProcessImpl *>(proc->impl);
}

void apply_blocked_signals()
{
    std::lock_guard<std::mutex> lock(g_sig_mu);
    if (g_blocked_set)
        pthread_sigmask(SIG_BLOCK, &g_blocked, nullptr);
}

} // namespace mox_detail

boost::asio::io_context &mox::io_context(mox_loop *loop)
{
    return loop->io;
}

extern "C" {

void mox_process_init(mox_process *proc)
{
    mox_detail::install_oom_handler();
    auto *pi = new mox_detail::ProcessImpl;
    pi->loop.proc = proc;
    mox_list_init(&pi->loop.cancelable);
    proc->impl = pi;
    proc->exit_code = 0;
    mox_detail::tls()->proc = proc;
}

void mox_process_fini(mox_process *proc)
{
    auto *pi = mox_detail::impl(proc);
    if (pi == nullptr)
        return;
    if (pi->signal_fd >= 0)
        close(pi->signal_fd);
    {
        // Coroutines that never ended keep their stacks: unwinding them here,
        // on the wrong thread, would be worse than the leak.
        std::lock_guard<std::mutex> lock(pi->co_mu);
        for (auto &co : pi->coroutines) {
            if (co->state != mox_detail::CoState::Ended)
                (void)co.release();
        }
    }
    delete pi;
    proc->impl = nullptr;
    if (mox_detail::tls()->proc == proc)
        mox_detail::tls()->proc = nullptr;
}

int mox_process_start(mox_process *proc, const char *name)
{
    auto *pi = mox_detail::impl(proc);
    if (pi == nullptr || pi->started.exchange(true))
        return -MOX_EINVAL;
    pi->loop_name = std::string(name).substr(0, 15); // the kernel's limit
    try {
        watch_signals(pi);
        pi->loop_thread = std::thread(loop_main, proc, pi);
    } catch (const std::system_error &e) {
        return -e.code().value();
    }
    return 0;
}

void mox_process_wait(mox_process *proc)
{
    auto *pi = mox_detail::impl(proc);
    if (pi->loop_thread.joinable())
        pi->loop_thread.join();
    // The loop thread told the worker to stop on its way out, and only the
    // loop starts the worker, so there is nothing left but to join it.
    if (pi->worker.thread.joinable())
        pi->worker.thread.join();
}

void mox_process_terminate(mox_process *proc)
{
    mox_detail::impl(proc)->loop.io.stop();
}

int mox_job_init(mox_process *proc, mox_job *job, mox_job_fn fn, void *arg)
{
    job->proc = proc;
    job->fn = fn;
    job->arg = arg;
    return 0;
}

void mox_job_wakeup(mox_job *job)
{
    boost::asio::post(mox_detail::impl(job->proc)->loop.io, [job] { job->fn(job, job->arg); });
}

uint64_t mox_loop_now_ms(const mox_loop *loop)
{
    return loop->now_ms;
}

mox_worker *mox_process_worker(mox_process *proc)
{
    return &mox_detail::impl(proc)->worker;
}

int mox_signal_block(const sigset_t *set)
{
    int rc = pthread_sigmask(SIG_BLOCK, set, nullptr);
    if (rc != 0)
        return -rc;
    std::lock_guard<std::mutex> lock(g_sig_mu);
    if (!g_blocked_set) {
        sigemptyset(&g_blocked);
        g_blocked_set = true;
    }
    sigorset(&g_blocked, &g_blocked, set);
    return 0;
}

const char *mox_signal_name(int sig)
{
    switch (sig) {
    case SIGINT:
        return "SIGINT";
    case SIGTERM:
        return "SIGTERM";
    default:
        return "signal";
    }
}

void mox_signal_hold(void)
{
    g_hold_depth.fetch_add(1);
}

void mox_signal_release(void)
{
    g_hold_depth.fetch_sub(1);
}

int mox_signal_held(void)
{
    if (g_held_signal.load() == 0) {
        // A step run on the loop thread keeps the descriptor unread: take a
        // pending signal directly (every thread blocks them).
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGINT);
        sigaddset(&set, SIGTERM);
        const timespec zero = {0, 0};
        int sig = sigtimedwait(&set, nullptr, &zero);
        if (sig > 0)
            note_signal(sig);
    }
    return g_held_signal.load();
}

void mox_signal_exit(int sig)
{
    mox_log(0, "terminated by signal %s", mox_signal_name(sig));
    mox_log_terminate();
    _exit(128 + sig);
}

} // extern "C"
