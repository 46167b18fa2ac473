#include "usage.h"

#include "mox/log.h"
#include "mox/process.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

void tarn_usage_exit(const char *text, const char *message)
{
    if (message != nullptr)
        fprintf(stderr, "ERROR: %s\n\n", message);
    fputs(text, stderr);
    mox_log_terminate();
    // From the root coroutine (a command's queue check) other threads run:
    // only the main thread may run exit handlers safely.
    if (mox_current_loop() == nullptr)
        exit(255);
    fflush(nullptr);
    _exit(255);
}
