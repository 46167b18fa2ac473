#include "usage.h"

#include "mox/log.h"

#include <cstdio>
#include <cstdlib>

void tarn_usage_exit(const char *text, const char *message)
{
    if (message != nullptr)
        fprintf(stderr, "ERROR: %s\n\n", message);
    fputs(text, stderr);
    mox_log_terminate();
    exit(255);
}
