// Crash reports: a crash signal prints what happened and a backtrace, then
// the process dies of the same signal.
#include "mox/process.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <pthread.h>
#include <unistd.h>
#include <unwind.h>

namespace
{

constexpr size_t kAltStackSize = 64 * 1024;

std::atomic<bool> g_installed{false};
thread_local char t_altstack[kAltStackSize];

struct Frames {
    void **at;
    int n;
    int max;
};

_Unwind_Reason_Code collect_frame(struct _Unwind_Context *uc, void *arg)
{
    auto *f = static_cast<Frames *>(arg);
    if (f->n >= f->max)
        return _URC_END_OF_STACK;
    f->at[f->n++] = reinterpret_cast<void *>(_Unwind_GetIP(uc));
    return _URC_NO_REASON;
}

void write_str(const char *s)
{
    (void)!write(STDERR_FILENO, s, strlen(s));
}

[[maybe_unused]] void fatal_handler(int sig)
{
    char name[16] = "?";
    pthread_getname_np(pthread_self(), name, sizeof name);
    char line[160];
    snprintf(line, sizeof line, "fatal signal %d (%s) in thread '%s'; backtrace:\n", sig,
             strsignal(sig), name);
    write_str(line);
    // The unwinder linked into the program needs no loading here, unlike
    // backtrace(), which would load a library inside the handler.
    void *frames[64];
    Frames f{frames, 0, 64};
    _Unwind_Backtrace(collect_frame, &f);
    backtrace_symbols_fd(frames, f.n, STDERR_FILENO);
    signal(sig, SIG_DFL);
    raise(sig);
}

} // namespace

namespace mox_detail
{

void install_thread_altstack();

// Coroutine stacks end in a guard page: an overflow needs a stack of its own
// for the report.
void install_thread_altstack()
{
    if (!g_installed.load())
        return;
    stack_t ss{};
    ss.ss_sp = t_altstack;
    ss.ss_size = kAltStackSize;
    sigaltstack(&ss, nullptr);
}

} // namespace mox_detail

extern "C" void mox_signal_set_fatal_handlers(void)
{
#if defined(MOX_ASAN) || defined(MOX_TSAN)
    // The sanitizers' own crash reports are better than ours.
    return;
#else
    if (g_installed.exchange(true))
        return;
    mox_detail::install_thread_altstack();
    struct sigaction sa {
    };
    sa.sa_handler = fatal_handler;
    sa.sa_flags = SA_ONSTACK | SA_RESETHAND;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT})
        sigaction(sig, &sa, nullptr);
#endif
}
