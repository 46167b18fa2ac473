/* Logging to standard error, one line per message:
 *   "2026-11-23 10:00:00.123 E [ctx-id] message"
 * with a level mark (E 0, W 1, I 2, N 3..6, D 7 and above) and the id of
 * the current coroutine's context where it has one. A message is written
 * when its level is not greater than __mox_log_level. When standard error
 * is the journal (JOURNAL_STREAM names its device and inode), a line starts
 * with its syslog priority instead of the time stamp:
 *   "<3>E [ctx-id] message"
 * with <3> for level 0, <4> for 1, <6> for 2, <5> for 3..6, <7> above. */
#ifndef MOX_LOG_H
#define MOX_LOG_H

#include "mox/compiler.h"

#include <stdarg.h>
#include <stdint.h>

MOX_EXTERN_C_BEGIN

extern int32_t __mox_log_level;

void mox_log(int level, const char *fmt, ...) MOX_PRINTF(2, 3);
/* The same as mox_log; kept for coroutine code, which names it so. */
void mox_co_log(int level, const char *fmt, ...) MOX_PRINTF(2, 3);
void mox_vlog(int level, const char *fmt, va_list ap) MOX_PRINTF(2, 0);

/* Logs at level 0 (whatever the threshold) and ends the process with exit
 * status 1. Usable before the loop starts and in coroutines. */
MOX_NORETURN void mox_fatal(const char *fmt, ...) MOX_PRINTF(1, 2);

/* Reports `msg` with its source location and aborts. */
MOX_NORETURN void mox_err(const char *msg, const char *file, int line, const char *function);

/* Reports an internal inconsistency at a source location and aborts. */
MOX_NORETURN void mox_bug(const char *file, int line, const char *function);

typedef struct mox_bug_location {
    const char *file;
    const char *function;
    int32_t line;
} mox_bug_location;

/* Reports a failed internal assertion at `loc` and aborts. */
MOX_NORETURN void mox_bug_at(const mox_bug_location *loc);

/* Aborts with a report at the given source names when `cond` holds. */
#define MOX_BUG_ON(cond, file, function)                                                           \
    do {                                                                                           \
        if (cond) {                                                                                \
            static const mox_bug_location mox_loc_ = {(file), (function), __LINE__};               \
            mox_bug_at(&mox_loc_);                                                                 \
        }                                                                                          \
    } while (0)

/* Flushes pending output; called right before the process exits. */
void mox_log_terminate(void);

MOX_EXTERN_C_END

#endif
