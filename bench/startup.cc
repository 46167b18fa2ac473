// Start-up cost of the tool: runs each command line many times and prints
// the median and 90th-percentile wall time and the peak resident set size,
// next to /bin/true measured the same way.
//   bench_startup [RUNS] -- CMD [ARG]... [-- CMD [ARG]...]...
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace
{

struct Sample {
    double wall_ms;
    long maxrss_kb;
};

Sample run_once(const std::vector<char *> &argv)
{
    auto t0 = std::chrono::steady_clock::now();
    pid_t pid = fork();
    if (pid == 0) {
        int devnull = open("/dev/null", O_WRONLY);
        dup2(devnull, 1);
        dup2(devnull, 2);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status;
    struct rusage ru;
    wait4(pid, &status, 0, &ru);
    auto t1 = std::chrono::steady_clock::now();
    return {std::chrono::duration<double, std::milli>(t1 - t0).count(), ru.ru_maxrss};
}

void measure(const std::vector<std::string> &cmd, int runs)
{
    std::vector<std::string> copy = cmd;
    std::vector<char *> argv;
    for (auto &s : copy)
        argv.push_back(s.data());
    argv.push_back(nullptr);
    std::vector<double> walls;
    long peak = 0;
    for (int i = 0; i < runs; ++i) {
        Sample s = run_once(argv);
        walls.push_back(s.wall_ms);
        peak = std::max(peak, s.maxrss_kb);
    }
    std::sort(walls.begin(), walls.end());
    std::string line;
    for (const auto &a : cmd)
        line += (line.empty() ? "" : " ") + a;
    printf("%-60s median %6.2f ms  p90 %6.2f ms  peak RSS %5.1f MB\n", line.c_str(),
           walls[walls.size() / 2], walls[walls.size() * 9 / 10], peak / 1024.0);
}

} // namespace

int main(int argc, char **argv)
{
    int runs = argc > 1 ? atoi(argv[1]) : 200;
    std::vector<std::vector<std::string>> cmds{{"/bin/true"}};
    for (int i = 2; i < argc; ++i) {
        if (strcmp(argv[i], "--") == 0) {
            cmds.emplace_back();
            continue;
        }
        if (cmds.size() > 1)
            cmds.back().push_back(argv[i]);
    }
    for (const auto &c : cmds) {
        if (!c.empty())
            measure(c, runs > 0 ? runs : 200);
    }
    return 0;
}
