/* The process: an event loop on its own thread, a worker thread for
 * blocking work, and jobs that run once on the loop. */
#ifndef MOX_PROCESS_H
#define MOX_PROCESS_H

#include "mox/compiler.h"

#include <signal.h>
#include <stdint.h>

MOX_EXTERN_C_BEGIN

typedef struct mox_loop mox_loop;
typedef struct mox_worker mox_worker;
typedef struct mox_co mox_co;

typedef struct mox_process {
    void *impl;        /* owned by the runtime */
    int32_t exit_code; /* handed to exit() after the loop stops; 0 by default */
} mox_process;

typedef struct mox_job mox_job;
typedef void *(*mox_job_fn)(mox_job *job, void *arg);

struct mox_job {
    mox_process *proc;
    mox_job_fn fn;
    void *arg;
};

/* Prepares a zeroed record; the calling thread's current process is set. */
void mox_process_init(mox_process *proc);
/* Frees what the runtime holds for a process that has been waited for. */
void mox_process_fini(mox_process *proc);
/* Starts the event loop thread (named `name`); the worker thread starts
 * when a coroutine first migrates to it.
 * 0, or a negative code when a thread cannot be started. */
int mox_process_start(mox_process *proc, const char *name);
/* Returns after mox_process_terminate has stopped the loop and both threads
 * have ended. */
void mox_process_wait(mox_process *proc);
/* Asks the loop to stop once the running coroutine suspends or ends.
 * Callable from any thread; returns. */
void mox_process_terminate(mox_process *proc);

/* `fn(job, arg)` runs once on the loop after mox_job_wakeup. */
int mox_job_init(mox_process *proc, mox_job *job, mox_job_fn fn, void *arg);
void mox_job_wakeup(mox_job *job);

/* Per-thread state. Each call reads the calling thread's state afresh, so
 * it stays right after a coroutine has moved to another thread. */
mox_process *mox_current_process(void);
/* The loop this thread runs, or null (the worker and the main thread). */
mox_loop *mox_current_loop(void);
/* The coroutine running on this thread, or null. */
mox_co *mox_current_co(void);
/* The loop's cached time in milliseconds (the get_abs_time_us clock). */
uint64_t mox_loop_now_ms(const mox_loop *loop);
mox_worker *mox_process_worker(mox_process *proc);

/* Blocks the signals in the calling thread and in every runtime thread
 * started later. 0, or a negated errno value. While the loop runs, SIGINT
 * and SIGTERM in the set are taken by the loop: it logs "terminated by
 * signal SIGxxx" and ends the process with status 128 + the signal number. */
int mox_signal_block(const sigset_t *set);
/* Holds SIGINT and SIGTERM for a step that should not be cut short, such as
 * an external program (holds nest). While held, the first of them is logged
 * as "received SIGxxx; stopping after the running step" and kept for
 * mox_signal_held; a second ends the process as usual. Do not suspend. */
void mox_signal_hold(void);
void mox_signal_release(void);
/* The signal kept since a hold began, or 0. Also takes a pending one that the
 * loop could not read because the step ran on the loop thread. The caller
 * decides where to stop, then calls mox_signal_exit. Does not suspend. */
int mox_signal_held(void);
/* "SIGINT", "SIGTERM", or "signal" for any other. Never null. */
const char *mox_signal_name(int sig);
/* Logs "terminated by signal SIGxxx" at level 0, ends logging and ends the
 * process with status 128 + sig without exit handlers. */
MOX_NORETURN void mox_signal_exit(int sig);
/* Crash signals print a report with a backtrace before the process dies. */
void mox_signal_set_fatal_handlers(void);

MOX_EXTERN_C_END

#endif
