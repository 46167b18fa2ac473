// Pull of every account of a source simulator, in info-file mode and in DC
// trust mode, beside a bare loop that does the info-file mode's file work
// (mkdir, copy, fsync, rename) without the tool. Prints wall time, time per
// account and the tool's peak RSS.
//   bench_pull TOOL [ACCOUNTS]
#include "gateway_sim.h"
#include "measured_run.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace
{

using clock_type = std::chrono::steady_clock;

double ms_since(clock_type::time_point t0)
{
    return std::chrono::duration<double, std::milli>(clock_type::now() - t0).count();
}

// Runs the tool; its wall time in ms and peak RSS in KiB.
double run_tool(std::vector<std::string> args, long &rss_kib)
{
    measured_run r = run_measured(std::move(args));
    if (!WIFEXITED(r.status) || WEXITSTATUS(r.status) != 0) {
        fprintf(stderr, "bench_pull: the tool failed (status %d)\n", r.status);
        exit(1);
    }
    rss_kib = r.rss_kib;
    return r.ms;
}

void die(const char *what)
{
    perror(what);
    exit(1);
}

// What info-file mode does for one account, minus the tool.
void bare_account(const std::string &dir, const std::string &cert)
{
    if (mkdir(dir.c_str(), 0700) != 0)
        die("mkdir");
    struct stat st;
    if (stat((dir + ".info").c_str(), &st) == 0)
        die("stat");
    int in = open(cert.c_str(), O_RDONLY | O_CLOEXEC);
    int out =
        open((dir + ".pull.src-cert-tmp").c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (in < 0 || out < 0)
        die("open");
    static char buf[65536];
    off_t off = 0;
    for (ssize_t n; (n = pread(in, buf, sizeof buf, off)) > 0; off += n)
        if (pwrite(out, buf, static_cast<size_t>(n), off) != n)
            die("pwrite");
    if (fsync(out) != 0)
        die("fsync");
    close(in);
    close(out);
    if (rename((dir + ".pull.src-cert-tmp").c_str(), (dir + ".pull.src-cert.1").c_str()) != 0)
        die("rename");
    std::string text = ".type=tarn.acc-data.0\npull.src-host=h\npull.src-account=a\n"
                       "pull.src-cert=" +
                       dir +
                       ".pull.src-cert.1\npull.rm-when-done=0\n"
                       "pull.started=0";
    int info = open((dir + ".info-tmp").c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (info < 0 || pwrite(info, text.data(), text.size(), 0) != ssize_t(text.size()) ||
        fsync(info) != 0)
        die("info");
    close(info);
    if (rename((dir + ".info-tmp").c_str(), (dir + ".info").c_str()) != 0)
        die("rename");
}

void report(const char *what, double ms, int n, long rss_kib)
{
    printf("%-34s %5d accounts in %8.1f ms: %7.3f ms each", what, n, ms, ms / n);
    if (rss_kib > 0)
        printf(", peak RSS %.1f MB", rss_kib / 1024.0);
    printf("\n");
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: bench_pull TOOL [ACCOUNTS]\n");
        return 2;
    }
    std::string tool = argv[1];
    int n = argc > 2 ? atoi(argv[2]) : 1000;
    ember_test::Sim src("dc-src"), dst("dc-dst");
    for (int i = 0; i < n; i++)
        src.mkdir("/account-" + std::to_string(i));
    char tmpl[] = "/tmp/tarn-bench-pull-XXXXXX";
    std::string work = mkdtemp(tmpl);
    std::string cert = ember_test::pki_file("web-ec.pem");
    fs::create_directories(work + "/root/var/files");
    fs::create_directories(work + "/bare");
    fs::create_directories(work + "/certs");
    fs::copy_file(cert, work + "/certs/tarn.pem");
    std::string config = work + "/tarn.config";
    FILE *f = fopen(config.c_str(), "w");
    fprintf(f, "root_dir = %s/root\ntarn.private_addr = %s\ncerts.dir = %s/certs\n", work.c_str(),
            dst.addr().c_str(), work.c_str());
    fclose(f);

    auto t0 = clock_type::now();
    for (int i = 0; i < n; i++)
        bare_account(work + "/bare/account-" + std::to_string(i) + "/", cert);
    double bare = ms_since(t0);
    report("bare loop (same file work)", bare, n, 0);

    long rss = 0;
    double info = run_tool({tool, "-c", config, "pull", "--src", src.addr(), "--src-cert", cert,
                            "--pull-all-accounts"},
                           rss);
    report("tool, info-file mode", info, n, rss);
    printf("%-34s %.2fx the bare loop\n", "", info / bare);
    double trust = run_tool({tool, "-c", config, "pull", "--src", src.addr(), "--src-cert", cert,
                             "--src-dc-uid", "dc-src", "--pull-all-accounts"},
                            rss);
    report("tool, DC trust mode", trust, n, rss);
    fs::remove_all(work);
    return 0;
}
