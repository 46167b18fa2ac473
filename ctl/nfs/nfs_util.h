// Internal to the nfs command: how it runs shell commands and how it ends.
#pragma once

#include "mox/compiler.h"

// Exit status of every failure of the command; the system reports 122.
constexpr int kNfsFailureExit = -134;
constexpr int kNfsUsageExit = 255;

// Ends the process with `code` after flushing the log and standard streams.
// Safe from the event loop thread: no exit handlers run.
MOX_NORETURN void nfs_exit(int code);

// Logs the message at level 0 and ends the process with kNfsFailureExit.
MOX_NORETURN void nfs_fail(const char *fmt, ...) MOX_PRINTF(1, 2);

// Runs `command` with system() and returns the shell's exit code. A shell
// that could not be run or was killed by a signal ends the tool, and so does
// a SIGINT or SIGTERM received meanwhile (status 128 + the signal, once the
// shell has ended). Blocks the calling thread until the shell ends.
int nfs_system(const char *command);
