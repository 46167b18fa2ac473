// SIGINT and SIGTERM while a command waits for a slow external program: the
// program runs to its end and the command stops after it with status
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

namespace
{

using tarn_test::RunOptions;

enum class Step { InitDirs, SetAttr, Logmanager, NfsMount };

struct SlowRun {
    tarn_test::Sandbox sb;
    std::optional<tarn_test::NfsSim> sim;

    // The command of `step` with one program that sleeps 0.7 s once it has
    // shown itself in o.signal_file.
    tarn_test::RunResult start(Step step, RunOptions o)
    {
        std::string cfg = sb.path("tarn.config");
        std::vector<std::string> args = {"-c", cfg, "init-dirs", "encoding=2+1"};
        if (step == Step::Logmanager) {
            sb.write_file("etc-quillon/tarn.config", "log.level = 4\n");
            sb.mkdir("etc-logmanager", 0755);
            std::string sed = access("/usr/bin/sed", X_OK) == 0 ? "/usr/bin/sed" : "/bin/sed";
            sb.write_file("bin/sed", "#!/bin/sh\n: >started\nsleep 0.7\nexec " + sed + " \"$@\"\n",
                          0755);
            o.in_namespace = true;
            o.mounts = {{sb.path("etc-quillon"), "/etc/quillon"},
                        {sb.path("etc-logmanager"), "/etc/logmanager.d"}};
            o.path = {sb.path("bin")}, o.cwd = sb.dir(), o.signal_file = sb.path("started");
            return tarn_test::run_tool({"enable-logmanager"}, o);
        }
        if (step == Step::NfsMount) {
            sim.emplace(sb);
            sb.mkdir("r/storage");
            sb.write_config("tarn.config", {{"storage.type", "nfs"},
                                            {"root_dir", sb.path("r")},
                                            {"storage.nfs.host", "srv"},
                                            {"storage.nfs.export", "/exp"},
                                            {"cluster.enable", "yes"}});
            sim->delay("mount", "0.7");
            RunOptions n = sim->options();
            n.signals = o.signals, n.signal_file = sim->state_dir() + "/mount.log";
            return tarn_test::run_tool({"-c", cfg, "nfs", "--mount"}, n);
        }
        sb.write_config("tarn.config", {{"root_dir", sb.path("r")}, {"storage.type", "local"}});
        std::string slow = step == Step::InitDirs ? "/var/clients/ replicas=" : "/var/ tier=3";
        o.path = {QUILLON_SIM_DIR};
        o.env = {"QUILLON_SIM_LOG=" + sb.path("q.log"), "QUILLON_SIM_DELAY_ON=*" + slow + "*"};
        if (step == Step::SetAttr) {
            EXPECT_EQ(tarn_test::run_tool(args, o).status, 0);
            args = {"-c", cfg, "set-attr", "tier=3"};
        }
        o.env.push_back("QUILLON_SIM_DELAY_MS=700");
        o.signal_file = sb.path("q.log"), o.signal_text = slow;
        return tarn_test::run_tool(args, o);
    }

    std::string tier_of(const std::string &rel) const
    {
        char buf[64];
        ssize_t n = getxattr(sb.path(rel).c_str(), "user.quillon.tier", buf, sizeof buf);
        return n < 0 ? "" : std::string(buf, static_cast<size_t>(n));
    }
};

TEST(Signals, WhileAnExternalProgramRuns)
{
    TARN_REQUIRE_NAMESPACES();
    const std::string int_held = "received SIGINT; stopping after the running step";
    const std::string term_held = "received SIGTERM; stopping after the running step";
    const struct {
        Step step;
        std::vector<int> sigs;
        int status;
        std::vector<std::string> lines; // logged in this order; none: no signal line
        std::function<void(SlowRun &)> check;
    } cases[] = {
        {Step::InitDirs,
         {SIGINT},
         130,
         {int_held, "/var/clients/'; the tree's empty directories are removed",
          "terminated by signal SIGINT"},
         [](SlowRun &r) { EXPECT_FALSE(r.sb.exists("r")); }},
        {Step::InitDirs,
         {SIGTERM, SIGINT},
         130,
         {term_held, "terminated by signal SIGINT"},
         [](SlowRun &r) { EXPECT_TRUE(r.sb.exists("r/var/clients")); }},
        {Step::InitDirs,
         {SIGUSR1, SIGQUIT},
         0,
         {},
         [](SlowRun &r) { EXPECT_TRUE(r.sb.exists("r/conf.d")); }},
        {Step::SetAttr,
         {SIGTERM},
         143,
         {term_held, "/var/clients/'; the directories before it keep their new attributes"},
         [](SlowRun &r) { EXPECT_EQ(r.tier_of("r/var") + r.tier_of("r/certs"), "3"); }},
        {Step::Logmanager,
         {SIGTERM},
         143,
         {term_held, "terminated by signal SIGTERM"},
         [](SlowRun &r) { EXPECT_TRUE(r.sb.exists("etc-logmanager/tarn.conf")); }},
        {Step::NfsMount,
         {SIGINT},
         130,
         {int_held, "> stopped by signal SIGINT after \"/bin/mount -t nfs4 ",
          "terminated by signal SIGINT"},
         [](SlowRun &r) { EXPECT_TRUE(r.sim->calls("bundlectl").empty()); }},
        {Step::NfsMount,
         {SIGUSR1, SIGQUIT},
         0,
         {},
         [](SlowRun &r) { EXPECT_EQ(r.sim->calls("bundlectl").size(), 1u); }},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
        SlowRun run;
        if (setxattr(run.sb.dir().c_str(), "user.quillon.probe", "1", 1, 0) != 0)
            GTEST_SKIP() << "no user extended attributes in " << run.sb.dir();
        RunOptions o;
        o.signals = c.sigs, o.timeout_ms = 10000;
        auto r = run.start(c.step, o);
        ASSERT_FALSE(r.timed_out) << "the command did not end within 10 s:\n" << r.err;
        EXPECT_EQ(r.status, c.status) << r.err;
        size_t at = 0;
        for (const std::string &line : c.lines) {
            at = r.err.find(line, at);
            ASSERT_NE(at, std::string::npos) << "no \"" << line << "\" (in order) in:\n" << r.err;
        }
        EXPECT_EQ(c.lines.empty(), r.err.find("signal") == std::string::npos) << r.err;
        c.check(run);
    }
}

} // namespace
