// SIGINT and SIGTERM while a command waits for a slow external program: the
// program runs to its end and the command stops after that step with status
// 128 + the signal; a second signal ends the run at once. SIGUSR1 and
// SIGQUIT change nothing.
#include "nfs_harness.h"
#include "sandbox.h"

#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <sys/xattr.h>
#include <unistd.h>

using tarn_test::NfsSim;
using tarn_test::RunOptions;
using tarn_test::RunResult;
using tarn_test::Sandbox;

namespace
{

enum class Step { InitDirs, SetAttr, Logmanager, NfsMount, NfsUmount };

const char kAppended[] = "log.path = /var/log/quillon/tarn\n";

// One sandbox per case; the command's slow program sleeps 0.7 s after it
// has announced itself in `o.signal_file`.
struct SlowRun {
    Sandbox sb;
    std::optional<NfsSim> sim;

    bool has_xattrs() const
    {
        return setxattr(sb.dir().c_str(), "user.quillon.probe", "1", 1, 0) == 0;
    }

    std::string tier_of(const std::string &rel) const
    {
        char buf[64];
        ssize_t n = getxattr(sb.path(rel).c_str(), "user.quillon.tier", buf, sizeof buf);
        return n < 0 ? "" : std::string(buf, static_cast<size_t>(n));
    }

    RunResult dirs(Step step, RunOptions o)
    {
        std::string slow = step == Step::InitDirs ? "/var/clients/ replicas=" : "/var/ tier=3";
        std::string config =
            sb.write_config("tarn.config", {{"root_dir", sb.path("r")}, {"storage.type", "local"}});
        o.path = {QUILLON_SIM_DIR};
        o.env = {"QUILLON_SIM_LOG=" + sb.path("q.log"), "QUILLON_SIM_DELAY_ON=*" + slow + "*"};
        if (step == Step::SetAttr) {
            EXPECT_EQ(tarn_test::run_tool({"-c", config, "init-dirs", "encoding=2+1"}, o).status,
                      0);
        }
        o.env.push_back("QUILLON_SIM_DELAY_MS=700");
        o.signal_file = sb.path("q.log");
        o.signal_text = slow;
        if (step == Step::InitDirs)
            return tarn_test::run_tool({"-c", config, "init-dirs", "encoding=2+1"}, o);
        return tarn_test::run_tool({"-c", config, "set-attr", "tier=3"}, o);
    }

    RunResult logmanager(RunOptions o)
    {
        sb.write_file("etc-quillon/tarn.config", "log.level = 4\n");
        sb.mkdir("etc-logmanager", 0755);
        std::string sed = access("/usr/bin/sed", X_OK) == 0 ? "/usr/bin/sed" : "/bin/sed";
        sb.write_file("bin/sed",
                      "#!/bin/sh\n: >'" + sb.path("sed.started") + "'\nsleep 0.7\nexec " + sed +
                          " \"$@\"\n",
                      0755);
        o.in_namespace = true;
        o.mounts = {{sb.path("etc-quillon"), "/etc/quillon"},
                    {sb.path("etc-logmanager"), "/etc/logmanager.d"}};
        o.path = {sb.path("bin")};
        o.signal_file = sb.path("sed.started");
        return tarn_test::run_tool({"enable-logmanager"}, o);
    }

    RunResult nfs(const std::string &slow, const RunOptions &plan)
    {
        sim.emplace(sb);
        sb.mkdir("r/storage");
        std::string config = sb.write_config("tarn.config", {{"storage.type", "nfs"},
                                                             {"root_dir", sb.path("r")},
                                                             {"storage.nfs.host", "srv"},
                                                             {"storage.nfs.export", "/exp"},
                                                             {"cluster.enable", "yes"}});
        if (slow == "umount")
            sim->add_mount("srv:/exp", sb.path("r/storage"), "nfs4");
        sim->delay(slow, "0.7");
        RunOptions o = sim->options();
        o.signals = plan.signals;
        o.timeout_ms = plan.timeout_ms;
        o.signal_file = sim->state_dir() + "/" + slow + ".log";
        return tarn_test::run_tool({"-c", config, "nfs", "--" + slow}, o);
    }

    RunResult start(Step step, const std::vector<int> &sigs)
    {
        RunOptions o;
        o.signals = sigs;
        o.timeout_ms = 10000;
        switch (step) {
        case Step::InitDirs:
        case Step::SetAttr:
            return dirs(step, o);
        case Step::Logmanager:
            return logmanager(o);
        case Step::NfsMount:
            return nfs("mount", o);
        case Step::NfsUmount:
            break;
        }
        return nfs("umount", o);
    }
};

struct SignalCase {
    const char *name;
    Step step;
    std::vector<int> sigs;
    int status;
    std::vector<std::string> lines; // each logged, in this order
    std::function<void(SlowRun &)> check;
};

TEST(Signals, WhileAnExternalProgramRuns)
{
    TARN_REQUIRE_NAMESPACES();
    const std::string stop_int = "received SIGINT; stopping after the running step";
    const std::string stop_term = "received SIGTERM; stopping after the running step";
    const SignalCase cases[] = {
        {"init-dirs cleans up",
         Step::InitDirs,
         {SIGINT},
         130,
         {stop_int, "/var/clients/'; the tree's empty directories are removed",
          "terminated by signal SIGINT"},
         [](SlowRun &r) { EXPECT_FALSE(r.sb.exists("r")); }},
        {"init-dirs, second signal",
         Step::InitDirs,
         {SIGTERM, SIGINT},
         130,
         {stop_term, "terminated by signal SIGINT"},
         [](SlowRun &r) { EXPECT_TRUE(r.sb.exists("r/var/clients")); }},
        {"init-dirs ignores",
         Step::InitDirs,
         {SIGUSR1, SIGQUIT},
         0,
         {},
         [](SlowRun &r) { EXPECT_TRUE(r.sb.exists("r/conf.d")); }},
        {"set-attr keeps",
         Step::SetAttr,
         {SIGTERM},
         143,
         {stop_term, "/var/clients/'; the directories before it keep their new attributes",
          "terminated by signal SIGTERM"},
         [](SlowRun &r) {
             EXPECT_EQ(r.tier_of("r/storage"), "3");
             EXPECT_EQ(r.tier_of("r/var"), "3");
             EXPECT_EQ(r.tier_of("r/certs"), "");
         }},
        {"enable-logmanager completes",
         Step::Logmanager,
         {SIGTERM},
         143,
         {stop_term, "terminated by signal SIGTERM"},
         [](SlowRun &r) {
             EXPECT_EQ(r.sb.read_file("etc-quillon/tarn.config"),
                       std::string("#log.level = 4\n") + kAppended +
                           "log.filename_prefix = tarn\nlog.compression = zst\n"
                           "log.max_file_size = 200M\n");
             EXPECT_TRUE(r.sb.exists("etc-logmanager/tarn.conf"));
         }},
        {"enable-logmanager, second signal",
         Step::Logmanager,
         {SIGINT, SIGINT},
         130,
         {stop_int, "terminated by signal SIGINT"},
         [](SlowRun &r) {
             EXPECT_EQ(r.sb.read_file("etc-quillon/tarn.config").find(kAppended),
                       std::string::npos);
         }},
        {"enable-logmanager ignores",
         Step::Logmanager,
         {SIGQUIT, SIGUSR1},
         0,
         {},
         [](SlowRun &r) { EXPECT_TRUE(r.sb.exists("etc-logmanager/tarn.conf")); }},
        {"nfs --mount stops",
         Step::NfsMount,
         {SIGINT},
         130,
         {"> stopped by signal SIGINT after \"/bin/mount -t nfs4 ", "terminated by signal SIGINT"},
         [](SlowRun &r) {
             EXPECT_NE(r.sim->mount_table(), "");
             EXPECT_TRUE(r.sim->calls("bundlectl").empty());
         }},
        {"nfs --mount ignores",
         Step::NfsMount,
         {SIGUSR1, SIGQUIT},
         0,
         {},
         [](SlowRun &r) { EXPECT_EQ(r.sim->calls("bundlectl").size(), 1u); }},
        {"nfs --umount stops",
         Step::NfsUmount,
         {SIGTERM},
         143,
         {"> stopped by signal SIGTERM after \"/bin/umount '", "terminated by signal SIGTERM"},
         [](SlowRun &r) { EXPECT_EQ(r.sim->mount_table(), ""); }},
    };
    for (const SignalCase &c : cases) {
        SCOPED_TRACE(c.name);
        SlowRun run;
        bool dirs = c.step == Step::InitDirs || c.step == Step::SetAttr;
        if (dirs && !run.has_xattrs()) {
            ADD_FAILURE() << "no user extended attributes in " << run.sb.dir();
            continue;
        }
        RunResult r = run.start(c.step, c.sigs);
        ASSERT_FALSE(r.timed_out) << "the command did not end within 10 s:\n" << r.err;
        EXPECT_EQ(r.status, c.status) << r.err;
        size_t at = 0;
        for (const std::string &line : c.lines) {
            at = r.err.find(line, at);
            ASSERT_NE(at, std::string::npos) << "no \"" << line << "\" (in order) in:\n" << r.err;
        }
        if (c.lines.empty()) {
            EXPECT_EQ(r.err.find("signal"), std::string::npos) << r.err;
        }
        c.check(run);
    }
}

} // namespace
