// tarn-test-ns: runs a command in a private mount namespace with sandbox
// paths bound over fixed system paths, for the demo and for manual checks.
//   tarn-test-ns [--bind SOURCE TARGET]... -- COMMAND [ARG]...
#include "sandbox.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

int main(int argc, char **argv)
{
    tarn_test::RunOptions opts;
    int i = 1;
    for (; i + 2 < argc && strcmp(argv[i], "--bind") == 0; i += 3)
        opts.mounts.emplace_back(argv[i + 1], argv[i + 2]);
    if (i + 1 >= argc || strcmp(argv[i], "--") != 0) {
        fprintf(stderr, "usage: tarn-test-ns [--bind SOURCE TARGET]... -- COMMAND [ARG]...\n");
        return 2;
    }
    std::string error;
    if (!tarn_test::enter_mount_namespace(opts, error)) {
        fprintf(stderr, "tarn-test-ns: %s\n", error.c_str());
        return 1;
    }
    execvp(argv[i + 1], argv + i + 1);
    fprintf(stderr, "tarn-test-ns: exec %s: %s\n", argv[i + 1], strerror(errno));
    return 127;
}
