// tarn-test-ns: runs a command in a private mount namespace with sandbox
// paths bound over fixed system paths, for the demo and for manual checks.
//   tarn-test-ns [--bind SOURCE TARGET]... -- COMMAND [ARG]...
#include "sandbox.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace tarn_test
{
bool enter_mount_namespace(const RunOptions &opts, std::string &error);
}

int main(int argc, char **argv)
{
    tarn_test::RunOptions opts;
    opts.in_namespace = true;
    int i = 1;
    for (; i < argc; ++i) {
        if (strcmp(argv[i], "--") == 0) {
            ++i;
            break;
        }
        if (strcmp(argv[i], "--bind") == 0 && i + 2 < argc) {
            opts.mounts.emplace_back(argv[i + 1], argv[i + 2]);
            i += 2;
            continue;
        }
        fprintf(stderr, "usage: tarn-test-ns [--bind SOURCE TARGET]... -- COMMAND [ARG]...\n");
        return 2;
    }
    if (i >= argc) {
        fprintf(stderr, "tarn-test-ns: no command given\n");
        return 2;
    }
    std::string error;
    if (!tarn_test::enter_mount_namespace(opts, error)) {
        fprintf(stderr, "tarn-test-ns: %s\n", error.c_str());
        return 1;
    }
    execvp(argv[i], argv + i);
    fprintf(stderr, "tarn-test-ns: exec %s: %s\n", argv[i], strerror(errno));
    return 127;
}
