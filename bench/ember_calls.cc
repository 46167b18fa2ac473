// Gateway client throughput over loopback against tarn-gateway-sim:
// sequential small calls on one connection, and a listing of 100,000
// entries, with the tool side's CPU time per call.
//   bench_ember [CALLS] [ENTRIES]
#include "co_runner.h"
#include "ember/ar_io.h"
#include "ember/ember.h"
#include "gateway_sim.h"
#include "mox/mox.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sys/resource.h>

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
    void report(const char *what, long n)
    {
        double wall =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0)
                .count();
        double cpu = cpu_ms() - cpu0;
        printf("%-28s %8ld in %8.1f ms: %9.0f /s, tool CPU %6.1f us each\n", what, n, wall,
               n * 1e3 / wall, cpu * 1e3 / n);
    }
};

} // namespace

int main(int argc, char **argv)
{
    long calls = argc > 1 ? atol(argv[1]) : 20000;
    long entries = argc > 2 ? atol(argv[2]) : 100000;
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
        ar_io_dir *d = nullptr;
        Clock list;
        if (ar_io_open_ember_dir_cl(c, "/acc/big", &d, 0) != 0)
            abort();
        ar_io_dir_entry *cur = nullptr;
        long n = 0;
        for (int rc = d->ops->read_first(d, nullptr, &cur, 0); rc > 0;
             rc = d->ops->read_next(d, cur, 0))
            n++;
        list.report("listing entries", n);
        if (cur)
            d->ops->release_entry(d, cur);
        ar_io_dir_put(d);
        ember_client_put(c);
    });
    // The same pages read by a plain Python loop, as the yardstick.
    fflush(stdout);
    std::string cmd = "python3 " TARN_BENCH_DIR "/list_pages.py " + sim.addr() + " /acc/big " +
                      ember_test::pki_file("ca.pem") + " " + ember_test::pki_file("site-ec.pem");
    if (system("command -v python3 >/dev/null") == 0 && system(cmd.c_str()) != 0)
        fprintf(stderr, "bench_ember: the python loop failed\n");
    return 0;
}
