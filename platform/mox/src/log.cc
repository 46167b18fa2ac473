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
#include <sys/stat.h>
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

// Syslog priority of a level: err, warning, info for progress, notice for
// the levels between, debug for the dump.
int syslog_priority(int level)
{
    if (level <= 0)
        return 3;
    if (level == 1)
        return 4;
    if (level == 2)
        return 6;
    return level >= 7 ? 7 : 5;
}

// Reads "DEVICE:INODE" (both decimal) as systemd sets JOURNAL_STREAM.
bool parse_journal_stream(const char *s, unsigned long long *dev, unsigned long long *ino)
{
    char *end = nullptr;
    if (s == nullptr || *s < '0' || *s > '9')
        return false;
    errno = 0;
    *dev = strtoull(s, &end, 10);
    if (errno != 0 || *end != ':' || end[1] < '0' || end[1] > '9')
        return false;
    *ino = strtoull(end + 1, &end, 10);
    return errno == 0 && *end == '\0';
}

// Standard error is the journal's stream when JOURNAL_STREAM names its
// device and inode; a variable inherited by a child whose standard error
// was redirected names another file and is ignored. Decided once, at the
// first line: the answer cannot change while the tool runs.
bool stderr_is_journal()
{
    static const bool journal = [] {
        int saved_errno = errno;
        unsigned long long dev = 0, ino = 0;
        struct stat st;
        bool yes = parse_journal_stream(getenv("JOURNAL_STREAM"), &dev, &ino) &&
                   fstat(STDERR_FILENO, &st) == 0 &&
                   static_cast<unsigned long long>(st.st_dev) == dev &&
                   static_cast<unsigned long long>(st.st_ino) == ino;
        errno = saved_errno;
        return yes;
    }();
    return journal;
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
    if (stderr_is_journal()) {
        // The journal stamps each line itself and reads the priority prefix.
        snprintf(head, sizeof head, "<%d>%c ", syslog_priority(level), level_mark(level));
    } else {
        int64_t now = get_real_time_ms();
        time_t secs = static_cast<time_t>(now / 1000);
        struct tm tm;
        localtime_r(&secs, &tm);
        size_t n = strftime(head, sizeof head, "%Y-%m-%d %H:%M:%S", &tm);
        snprintf(head + n, sizeof head - n, ".%03d %c ", static_cast<int>(now % 1000),
                 level_mark(level));
    }
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
