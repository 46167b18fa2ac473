// SIGINT and SIGTERM while a command waits for a slow external program: the
// program runs to its end and the command stops after it with status
// 128 + the signal; a second signal ends the run at once. SIGUSR1 and
// SIGQUIT change nothing. The nfs command's rows are among its scenarios.
#include "sandbox.h"

#include <csignal>
#include <gtest/gtest.h>
#include <map>
#include <sys/xattr.h>
#include <unistd.h>

namespace
{

using tarn_test::RunOptions;

enum class Step { InitDirs, SetAttr, Logmanager };

struct SlowRun {
    tarn_test::Sandbox sb;

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

// A signal sent while `step`'s slow program runs ("INT TERM": both, in
// order), the status, the lines logged in this order (none: no line about a
// signal; "@INT"/"@TERM" for the line saying the run stops after the step),
// and what is left: "+REL"/"-REL" (exists or not in the sandbox), "tier"
// (only the directories before the slow one got the new tier).
struct SignalCase {
    Step step;
    const char *signals;
    int status;
    const char *lines;
    const char *left;
};

const SignalCase kCases[] = {
    {Step::InitDirs, "INT", 130,
     "@INT|/var/clients/'; the tree's empty directories are removed|terminated by signal SIGINT",
     "-r"},
    {Step::InitDirs, "TERM INT", 130, "@TERM|terminated by signal SIGINT", "+r/var/clients"},
    {Step::InitDirs, "USR1 QUIT", 0, "", "+r/conf.d"},
    {Step::SetAttr, "TERM", 143,
     "@TERM|/var/clients/'; the directories before it keep their new attributes", "tier"},
    {Step::Logmanager, "TERM", 143, "@TERM|terminated by signal SIGTERM",
     "+etc-logmanager/tarn.conf"},
};

std::vector<std::string> words(const std::string &s, char sep)
{
    std::vector<std::string> out;
    for (size_t at = 0, end; at < s.size(); at = end + 1) {
        end = std::min(s.find(sep, at), s.size());
        out.push_back(s.substr(at, end - at));
    }
    return out;
}

TEST(Signals, WhileAnExternalProgramRuns)
{
    TARN_REQUIRE_NAMESPACES();
    const std::map<std::string, int> numbers = {
        {"INT", SIGINT}, {"TERM", SIGTERM}, {"USR1", SIGUSR1}, {"QUIT", SIGQUIT}};
    for (const SignalCase &c : kCases) {
        SCOPED_TRACE(testing::Message() << "case " << (&c - kCases));
        SlowRun run;
        if (setxattr(run.sb.dir().c_str(), "user.quillon.probe", "1", 1, 0) != 0)
            GTEST_SKIP() << "no user extended attributes in " << run.sb.dir();
        RunOptions o;
        for (const std::string &name : words(c.signals, ' '))
            o.signals.push_back(numbers.at(name));
        o.timeout_ms = 10000;
        auto r = run.start(c.step, o);
        ASSERT_FALSE(r.timed_out) << "the command did not end within 10 s:\n" << r.err;
        EXPECT_EQ(r.status, c.status) << r.err;
        size_t at = 0;
        for (std::string line : words(c.lines, '|')) {
            if (line[0] == '@')
                line = "received SIG" + line.substr(1) + "; stopping after the running step";
            at = r.err.find(line, at);
            ASSERT_NE(at, std::string::npos) << "no \"" << line << "\" (in order) in:\n" << r.err;
        }
        EXPECT_EQ(*c.lines == '\0', r.err.find("signal") == std::string::npos) << r.err;
        std::string left = c.left;
        if (left == "tier") {
            EXPECT_EQ(run.tier_of("r/var") + run.tier_of("r/certs"), "3");
        } else {
            EXPECT_EQ(run.sb.exists(left.substr(1)), left[0] == '+') << left;
        }
    }
}

} // namespace
