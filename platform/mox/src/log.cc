// Log lines on standard error, and the reports that end the program.
#include "mox/log.h"

#include "internal.h"
#include "mox/misc.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

int32_t __mox_log_level = 7;

namespace
{

char level_mark(int level)
{
    switch (level) {
    case 0:
        return 'E';
    case 1:
        return 'W';
    case 2:
        return 'I';
    default:
        return level >= 7 ? 'D' : 'N';
    }
}

void write_all(int fd, const char *p, size_t n)
{
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        p += w;
        n -= static_cast<size_t>(w);
    }
}

// One write per line keeps lines from different threads whole.
void emit(int level, const char *fmt, va_list ap)
{
    int saved_errno = errno; // logging must not disturb the caller's errno
    char head[96];
    int64_t now = get_real_time_ms();
    time_t secs = static_cast<time_t>(now / 1000);
    struct tm tm;
    localtime_r(&secs, &tm);
    size_t n = strftime(head, sizeof head, "%Y-%m-%d %H:%M:%S", &tm);
    snprintf(head + n, sizeof head - n, ".%03d %c ", static_cast<int>(now % 1000),
             level_mark(level));
    std::string line(head);
    mox_co *co = mox_current_co();
    if (co != nullptr && co->ctx != nullptr) {
        if (const char *id = mox_context_get_id(co->ctx)) {
            line += '[';
            line += id;
            line += "] ";
        }
    }
    char body[1024];
    va_list copy;
    va_copy(copy, ap);
    int len = vsnprintf(body, sizeof body, fmt, copy);
    va_end(copy);
    if (len < 0) {
        line += fmt;
    } else if (static_cast<size_t>(len) < sizeof body) {
        line.append(body, static_cast<size_t>(len));
    } else {
        std::string big(static_cast<size_t>(len) + 1, '\0');
        vsnprintf(big.data(), big.size(), fmt, ap);
        line.append(big.data(), static_cast<size_t>(len));
    }
    line += '\n';
    write_all(STDERR_FILENO, line.data(), line.size());
    errno = saved_errno;
}

void emit_fmt(int level, const char *fmt, ...) MOX_PRINTF(2, 3);
void emit_fmt(int level, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    emit(level, fmt, ap);
    va_end(ap);
}

bool on_main_thread()
{
    return getpid() == static_cast<pid_t>(syscall(SYS_gettid));
}

} // namespace

extern "C" {

void mox_vlog(int level, const char *fmt, va_list ap)
{
    if (level > __mox_log_level)
        return;
    emit(level, fmt, ap);
}

void mox_log(int level, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    mox_vlog(level, fmt, ap);
    va_end(ap);
}

// Lines already carry the context id when a coroutine runs, so coroutine
// code logs the same way.
void mox_co_log(int level, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    mox_vlog(level, fmt, ap);
    va_end(ap);
}

void mox_fatal(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    emit(0, fmt, ap);
    va_end(ap);
    mox_log_terminate();
    // Other threads may be running: only the main thread may run exit
    // handlers safely.
    if (on_main_thread())
        exit(1);
    _exit(1);
}

void mox_err(const char *msg, const char *file, int line, const char *function)
{
    emit_fmt(0, "%s at %s:%d in %s()", msg, file, line, function);
    mox_log_terminate();
    abort();
}

void mox_bug(const char *file, int line, const char *function)
{
    emit_fmt(0, "internal error (bug) at %s:%d in %s()", file, line, function);
    mox_log_terminate();
    abort();
}

void mox_bug_at(const mox_bug_location *loc)
{
    mox_bug(loc->file, loc->line, loc->function);
}

void mox_log_terminate(void)
{
    // Lines are written unbuffered; the standard streams may still hold
    // messages that commands printed themselves.
    fflush(stdout);
    fflush(stderr);
}

} // extern "C"
