#include "measured_run.h"

#include <chrono>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

measured_run run_measured(std::vector<std::string> args, const std::string &err)
{
    std::vector<char *> argv;
    for (auto &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    auto t0 = std::chrono::steady_clock::now();
    pid_t pid = fork();
    if (pid == 0) {
        int fd = err.empty() ? open("/dev/null", O_WRONLY)
                             : open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        dup2(fd, 2);
        execv(argv[0], argv.data());
        _exit(127);
    }
    measured_run r;
    struct rusage ru;
    wait4(pid, &r.status, 0, &ru);
    r.ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    r.cpu_ms = (ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) * 1e3 +
               (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e3;
    r.rss_kib = ru.ru_maxrss;
    return r;
}
