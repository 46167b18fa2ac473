// Replication of one account between two simulators on loopback: the tool's
// enable and consistency check of an account of small files, beside what
// the simulators take for the same calls without the tool, measured in the
// same run (their small-call rate, and bare client loops of the same calls);
// then the check's peak RSS per listed file on a big account. Its files are named as temporary
// files: the check lists and holds every one of them but examines none, so it runs to its end
// without the simulators replicating 100,000 files first.
//   bench_replication TOOL [FILES] [DIRS] [BIG_FILES] [BIG_DIRS]
#include "co_runner.h"
#include "ember/ar_io.h"
#include "ember/ember.h"
#include "gateway_sim.h"
#include "measured_run.h"
#include "mox/mox.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace
{

using clock_type = std::chrono::steady_clock;
using ember_test::Sim;

double ms_since(clock_type::time_point t0)
{
    return std::chrono::duration<double, std::milli>(clock_type::now() - t0).count();
}

// An account of `files` files spread evenly over `dirs` directories.
struct Tree {
    std::string account; // "/acc"
    long files, dirs;
    bool temporary = false; // names that replication leaves alone

    long in_dir(long d) const { return files / dirs + (d < files % dirs ? 1 : 0); }
    std::string dir(long d) const { return account + "/d" + std::to_string(d); }
    std::string file(long d, long f) const
    {
        return dir(d) +
               (temporary ? "/.tmp." + std::to_string(f) + ".xml" : "/f" + std::to_string(f));
    }
    // The directory handle's requests for the whole tree: a stat for each
    // directory opened and a page per 1,000 entries, one for an empty one.
    long listing_calls() const
    {
        auto pages = [](long n) { return n == 0 ? 1 : (n + 999) / 1000; };
        long calls = 1 + pages(dirs);
        for (long d = 0; d < dirs; d++)
            calls += 1 + pages(in_dir(d));
        return calls;
    }
    // Calls `fn` with the path of every file, directory by directory.
    template <class Fn> void each_file(Fn fn) const
    {
        for (long d = 0; d < dirs; d++)
            for (long f = 0; f < in_dir(d); f++)
                fn(file(d, f));
    }
};

// The account on the master, and its empty directory on the slave, which
// must know the account to take its secret.
void build(const Sim &master, const Sim &slave, const Tree &t)
{
    master.mkdir(t.account);
    slave.mkdir(t.account);
    for (long d = 0; d < t.dirs; d++) {
        master.mkdir(t.dir(d));
        for (long f = 0; f < t.in_dir(d); f++)
            master.write(t.file(d, f), "small file\n");
    }
}

// How the tool's clients authenticate to each site.
ember_client *site_client(const Sim &sim)
{
    const char *pem = sim.uid() == "dc-a" ? "site-rsa.pem" : "web-ec.pem";
    return ember_test::jwt_client(sim.addr(), pem, 7, sim.uid());
}

// Sequential trust-secret queries on one connection, per second.
double small_call_rate(const Sim &sim, long calls)
{
    double ms = 0;
    tarn_test::run_in_coroutine(
        [&] {
            ember_client *c = site_client(sim);
            if (ember_set_trust_secret(c, "rate", 1, "secret") != 0)
                abort();
            auto t0 = clock_type::now();
            for (long i = 0; i < calls; i++) {
                char *s = nullptr;
                if (ember_get_trust_secret(c, "rate", 1, &s) != 0)
                    abort();
                mox_free(s);
            }
            ms = ms_since(t0);
            ember_client_put(c);
        },
        600);
    return calls * 1e3 / ms;
}

// Enables every file of `t` straight through the client library: the
// simulators' own time for the enable's per-file calls. In ms.
double bare_enable(const Sim &master, const Sim &slave, const Tree &t)
{
    double ms = 0;
    tarn_test::run_in_coroutine(
        [&] {
            ember_client *m = site_client(master), *s = site_client(slave);
            const char *name = t.account.c_str() + 1;
            if (ember_set_trust_secret(m, name, 1, "bench secret") != 0 ||
                ember_set_trust_secret(s, name, 1, "bench secret") != 0)
                abort();
            auto t0 = clock_type::now();
            t.each_file([&](const std::string &path) {
                if (ember_file_enable_replication(m, path.c_str(), slave.addr().c_str(), "dc-b") !=
                    0)
                    abort();
            });
            ms = ms_since(t0);
            ember_client_put(s);
            ember_client_put(m);
        },
        3600);
    return ms;
}

// Reads every entry of `dir`; false on a failure.
bool read_dir(ar_io_dir *dir)
{
    ar_io_dir_entry *cur = nullptr;
    int rc = dir->ops->read_first(dir, nullptr, &cur, 0);
    while (rc > 0)
        rc = dir->ops->read_next(dir, cur, 0);
    if (cur)
        dir->ops->release_entry(dir, cur);
    return rc == 0;
}

void list_tree(ember_client *c, const Tree &t)
{
    ar_io_dir *top = nullptr;
    if (ar_io_open_ember_dir_cl(c, t.account.c_str(), &top, 0) != 0 || !read_dir(top))
        abort();
    for (long d = 0; d < t.dirs; d++) {
        ar_io_dir *sub = nullptr;
        std::string name = "d";
        name += std::to_string(d);
        if (top->ops->open_child(top, name.c_str(), &sub, 0) != 0 || !read_dir(sub))
            abort();
        ar_io_dir_put(sub);
    }
    ar_io_dir_put(top);
}

void state_of(ember_client *c, const std::string &path)
{
    char *text = nullptr;
    if (ember_file_get_state(c, path.c_str(), &text) != 0)
        abort();
    mox_free(text);
}

// The consistency check's calls, in its order, straight through the client
// library: the simulators' own time for them. In ms.
double bare_check(const Sim &master, const Sim &slave, const Tree &t)
{
    double ms = 0;
    tarn_test::run_in_coroutine(
        [&] {
            ember_client *m = site_client(master), *s = site_client(slave);
            auto t0 = clock_type::now();
            for (ember_client *c : {m, s}) {
                char *secret = nullptr;
                if (ember_get_trust_secret(c, t.account.c_str() + 1, 1, &secret) != 0)
                    abort();
                mox_free(secret);
            }
            list_tree(m, t);
            t.each_file([&](const std::string &path) { state_of(m, path); });
            list_tree(s, t);
            t.each_file([&](const std::string &path) {
                state_of(s, path);
                ember_file *h = nullptr;
                if (ember_file_open(m, &h, path.c_str(), 0) != 0 || ember_file_close(h) != 0)
                    abort();
            });
            ms = ms_since(t0);
            ember_client_put(s);
            ember_client_put(m);
        },
        3600);
    return ms;
}

using Run = measured_run;

// Runs the tool's replication command on the two sites with `op`; its
// standard error goes to `err`.
Run run_tool(const std::string &tool, const Sim &master, const Sim &slave, const std::string &op,
             const std::string &account, const std::string &err)
{
    std::vector<std::string> args = {tool,
                                     "-c",
                                     "/nonexistent/tarn.config",
                                     "replication",
                                     "--master-addr",
                                     master.addr(),
                                     "--master-uid",
                                     master.uid(),
                                     "--master-cert",
                                     ember_test::pki_file("site-rsa.pem"),
                                     "--slave-addr",
                                     slave.addr(),
                                     "--slave-uid",
                                     slave.uid(),
                                     "--slave-cert",
                                     ember_test::pki_file("web-ec.pem"),
                                     op,
                                     account};
    return run_measured(std::move(args), err);
}

// Prints a run's figures; false (after the tool's last words) when it failed.
bool report(const char *what, const Run &r, long calls, const std::string &err)
{
    if (!WIFEXITED(r.status) || WEXITSTATUS(r.status) != 0) {
        printf("%-26s failed (status %d):\n", what, r.status);
        fflush(stdout);
        std::string cmd = "tail -n 3 '" + err + "'";
        if (system(cmd.c_str()) != 0)
            fprintf(stderr, "bench_replication: cannot show '%s'\n", err.c_str());
        return false;
    }
    printf("%-26s %7ld calls in %8.1f ms: %6.0f calls/s, tool CPU %6.1f ms, peak RSS %.1f MB\n",
           what, calls, r.ms, calls * 1e3 / r.ms, r.cpu_ms, r.rss_kib / 1024.0);
    return true;
}

void overhead(double tool_ms, double sims_ms, const char *against)
{
    printf("%-26s %+.1f%% on top of the sims' %.1f ms (%s)\n", "", (tool_ms / sims_ms - 1) * 100,
           sims_ms, against);
}

void per_file(const Run &run, const Run &empty, long files)
{
    printf("%-26s %.0f bytes per file ((peak RSS - the empty account's) / files)\n", "",
           (run.rss_kib - empty.rss_kib) * 1024.0 / files);
}

struct Bench {
    std::string tool, err;
    Sim a{"dc-a"}, b{"dc-b"};
    double rate_a = 0, rate_b = 0; // small calls per second

    Run run(const char *op, const Tree &t) { return run_tool(tool, a, b, op, t.account, err); }
    // The sims' time for `n` small calls on the master and `m` on the slave.
    double sims_ms(long n, long m) const { return n * 1e3 / rate_a + m * 1e3 / rate_b; }
    void rates(long calls)
    {
        double a1 = small_call_rate(a, calls), b1 = small_call_rate(b, calls);
        printf("%-26s master %6.0f /s, slave %6.0f /s\n", "sims' small calls", a1, b1);
        // Measured before and after the tool, so that a drift of the machine
        // shows; the mean is the yardstick.
        rate_a = rate_a ? (rate_a + a1) / 2 : a1;
        rate_b = rate_b ? (rate_b + b1) / 2 : b1;
    }
};

// Enable and check of `acc`: the enable against a bare loop on `sample`
// before and after it, the check against a bare loop of the same calls in
// alternating rounds. False when the tool failed.
bool whole_account(Bench &bn, const Tree &acc, const Tree &sample, const Run &empty)
{
    printf("account of %ld files in %ld directories:\n", acc.files, acc.dirs);
    bn.rates(5000);
    double sample_ms = bare_enable(bn.a, bn.b, sample);
    Run en = bn.run("--enable", acc);
    sample_ms = (sample_ms + bare_enable(bn.a, bn.b, sample)) / 2;
    Run chk;
    double bare_ms = 0;
    for (int round = 0; round < 3; round++) {
        Run r = bn.run("--check-consistency", acc);
        double b = bare_check(bn.a, bn.b, acc);
        if (round == 0 || r.ms < chk.ms)
            chk = r;
        bare_ms = round == 0 ? b : std::min(bare_ms, b);
    }
    bn.rates(5000);
    long list = acc.listing_calls(), n = acc.files;
    // Enable: the master's secret queried and set, the slave's set, the
    // master's listing, a call per file.
    printf("%-26s %7ld calls in %8.1f ms: %6.0f calls/s (mean of two)\n",
           "bare loop, enable per file", sample.files, sample_ms, sample.files * 1e3 / sample_ms);
    bool ok = report("tool --enable", en, 3 + list + n, bn.err);
    if (ok)
        overhead(en.ms, sample_ms * n / sample.files + bn.sims_ms(2 + list, 1),
                 "the bare loop's time per file, secrets and listing at the small-call rate");
    // Check: on the master its secret, its listing, each file's state and
    // each slave file's open and close; on the slave its secret, its listing
    // and each file's state.
    long calls = 2 + 2 * list + 4 * n;
    printf("%-26s %7ld calls in %8.1f ms: %6.0f calls/s (best of 3)\n", "bare loop, check's calls",
           calls, bare_ms, calls * 1e3 / bare_ms);
    if (!report("tool --check-consistency", chk, calls, bn.err))
        return false;
    overhead(chk.ms, bare_ms, "the bare loop of the same calls, best of 3 each");
    overhead(chk.ms, bn.sims_ms(1 + list + 3 * n, 1 + list + n),
             "each call at the small-call rate");
    per_file(chk, empty, n);
    return ok;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: bench_replication TOOL [FILES] [DIRS] [BIG_FILES] [BIG_DIRS]\n");
        return 2;
    }
    auto arg = [&](int i, long dflt) { return argc > i ? atol(argv[i]) : dflt; };
    Tree acc{"/acc", arg(2, 10000), arg(3, 200)};
    // A tenth of the account (at least one file per directory) gives the
    // bare loop's time per file.
    Tree sample{"/sample", std::max(acc.files / 10, acc.dirs), acc.dirs};
    Tree big{"/big", arg(4, 100000), arg(5, 1000), true}, empty{"/empty", 0, 0};
    // Each figure as soon as it is known: the whole run takes minutes.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Bench bn;
    bn.tool = argv[1];
    bn.err = "/tmp/bench-replication-" + std::to_string(getpid()) + ".err";
    for (const Tree *t : {&acc, &sample, &big, &empty})
        build(bn.a, bn.b, *t);
    bn.a.mkdir("/rate");
    bn.b.mkdir("/rate");
    printf("replication between two sims on loopback:\n");
    // Memory that every run of the check holds, whatever the account.
    bn.run("--enable", empty);
    Run none = bn.run("--check-consistency", empty);
    bool ok = report("check, empty account", none, 2 + 2 * empty.listing_calls(), bn.err);
    ok = ok && whole_account(bn, acc, sample, none);

    printf("check of %ld files in %ld directories, named as temporary files:\n", big.files,
           big.dirs);
    bn.run("--enable", big); // the secrets; no file is replicated
    Run full = bn.run("--check-consistency", big);
    if (report("tool --check-consistency", full, 2 + big.listing_calls() + 2, bn.err))
        per_file(full, none, big.files);
    else
        ok = false;
    unlink(bn.err.c_str());
    return ok ? 0 : 1;
}
