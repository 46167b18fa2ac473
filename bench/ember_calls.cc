// Gateway client throughput over loopback against tarn-gateway-sim:
// sequential small calls on one connection, and a listing of 100,000
// entries beside a plain Python loop over the same pages, in alternating
// rounds, with the tool side's CPU time per call.
//   bench_ember [CALLS] [ENTRIES] [ROUNDS]
#include "co_runner.h"
#include "ember/ar_io.h"
#include "ember/ember.h"
#include "gateway_sim.h"
#include "mox/mox.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sys/resource.h>
#include <vector>

namespace
{

double cpu_ms()
{
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return (ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) * 1e3 +
           (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e3;
}

struct Clock {
    std::chrono::steady_clock::time_point t0 = std::chrono::steady_clock::now();
    double cpu0 = cpu_ms();
    double wall_ms() const
    {
        return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0)
            .count();
    }
    void report(const char *what, long n)
    {
        double wall = wall_ms();
        double cpu = cpu_ms() - cpu0;
        printf("%-28s %8ld in %8.1f ms: %9.0f /s, tool CPU %6.1f us each\n", what, n, wall,
               n * 1e3 / wall, cpu * 1e3 / n);
    }
};

// One listing of `path` through a directory handle; its wall time in ms.
double list_once(ember_client *c, const char *path, double &cpu)
{
    Clock clock;
    ar_io_dir *d = nullptr;
    if (ar_io_open_ember_dir_cl(c, path, &d, 0) != 0)
        abort();
    ar_io_dir_entry *cur = nullptr;
    long n = 0;
    for (int rc = d->ops->read_first(d, nullptr, &cur, 0); rc > 0;
         rc = d->ops->read_next(d, cur, 0))
        n++;
    if (cur)
        d->ops->release_entry(d, cur);
    ar_io_dir_put(d);
    cpu = cpu_ms() - clock.cpu0;
    return clock.wall_ms();
}

// The same pages read by a plain Python loop, as the yardstick: its wall
// time in ms, or a negative value when it cannot run.
double python_once(const ember_test::Sim &sim)
{
    std::string cmd = "python3 " TARN_BENCH_DIR "/list_pages.py " + sim.addr() + " /acc/big " +
                      ember_test::pki_file("ca.pem") + " " + ember_test::pki_file("site-ec.pem") +
                      " ms";
    FILE *p = popen(cmd.c_str(), "r");
    double ms = -1;
    if (p == nullptr || fscanf(p, "%lf", &ms) != 1)
        ms = -1;
    if (p != nullptr && pclose(p) != 0)
        ms = -1;
    return ms;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

void report_listing(const char *what, const std::vector<double> &ms, long n, double cpu)
{
    double best = *std::min_element(ms.begin(), ms.end());
    printf("%-28s %8ld in %8.1f ms: %9.0f /s (median %.1f ms of %zu)", what, n, best,
           n * 1e3 / best, median(ms), ms.size());
    if (cpu >= 0)
        printf(", tool CPU %6.2f us each", cpu * 1e3 / n);
    printf("\n");
}

} // namespace

int main(int argc, char **argv)
{
    long calls = argc > 1 ? atol(argv[1]) : 20000;
    long entries = argc > 2 ? atol(argv[2]) : 100000;
    int rounds = argc > 3 ? atoi(argv[3]) : 5;
    ember_test::Sim sim;
    sim.mkdir("/acc/big");
    for (long i = 0; i < entries; i++) {
        std::string name = "/acc/big/f";
        name += std::to_string(i);
        sim.write(name, "");
    }
    tarn_test::run_in_coroutine([&] {
        ember_client *c = ember_test::cert_client(sim.addr(), "site-ec.pem");
        ember_set_trust_secret(c, "acc", 1, "secret");
        Clock small;
        for (long i = 0; i < calls; i++) {
            char *s = nullptr;
            if (ember_get_trust_secret(c, "acc", 1, &s) != 0)
                abort();
            mox_free(s);
        }
        small.report("small calls (get secret)", calls);
        ember_client_put(c);
    });
    // Rounds alternate between the two readers, so that a busy moment of
    // the machine does not fall on one of them only.
    bool python = system("command -v python3 >/dev/null") == 0;
    std::vector<double> client_ms, python_ms;
    double cpu = 0, best_cpu = -1;
    for (int r = 0; r < rounds; r++) {
        tarn_test::run_in_coroutine([&] {
            ember_client *c = ember_test::cert_client(sim.addr(), "site-ec.pem");
            client_ms.push_back(list_once(c, "/acc/big", cpu));
            best_cpu = best_cpu < 0 ? cpu : std::min(best_cpu, cpu);
            ember_client_put(c);
        });
        double ms = python ? python_once(sim) : -1;
        if (ms > 0)
            python_ms.push_back(ms);
    }
    report_listing("listing entries (best)", client_ms, entries, best_cpu);
    if (python_ms.empty()) {
        fprintf(stderr, "bench_ember: no python loop to compare with\n");
        return 0;
    }
    report_listing("python loop, same pages", python_ms, entries, -1);
    printf("%-28s %8.2fx the python loop's time (best), %.2fx (median)\n", "client listing",
           *std::min_element(client_ms.begin(), client_ms.end()) /
               *std::min_element(python_ms.begin(), python_ms.end()),
           median(client_ms) / median(python_ms));
    return 0;
}
