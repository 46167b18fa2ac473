// The command frame as a user meets it: global options, usage, configuration
// loading and dispatch, through the real binary.
#include "sandbox.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using tarn_test::run_tool;
using tarn_test::Sandbox;

namespace
{

const char kUsage[] =
    "TARN control tool.\n"
    "SYNOPSIS: quillon-tarn-ctl <common options> command <command options>\n"
    "\n"
    "Common options:\n"
    "  -c, --config <file>         read TARN configuration from <file>\n"
    "  -d, --log-level <level>     set the logging verbosity level\n"
    "  -h, --help                  show this message\n"
    "\n"
    "Commands:\n"
    "  init-dirs encoding=M+N/X    initialise an empty hierarchy of directories for TARN\n"
    "  upgrade-dirs                create missing directories after TARN update\n"
    "  set-attr encoding=M+N/X     change storage parameters of TARN files\n"
    "  pull                        pull accounts from another DC\n"
    "  nfs                         mount/unmount NFS volume\n"
    "  replication                 replication of files to another DC\n"
    "  enable-logmanager           edit config files for logmanager\n";

// Command lines that end in the usage text with status 255, and the line
// that must come just before it ("@CONF" stands for a valid configuration).
// libc's own diagnostic may come first for bad options: only our line is ours.
TEST(Frame, PrintsUsageAndExits255)
{
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, "No command specified.\n"},
        {{"-h"}, ""},
        {{"--help"}, ""},
        {{"--he"}, ""},
        {{"-c", "@CONF", "-d", "3"}, "No command specified.\n"},
        // Without a command word the configuration is not even opened.
        {{"-c", "/nonexistent/tarn.config"}, "No command specified.\n"},
        {{"--log-level", "3", "enable-logmanager"}, "Unknown option '--log-level'.\n"},
        {{"-x", "enable-logmanager"}, "Unknown option '-x'.\n"},
        {{"-c"}, "Unknown option '-c'.\n"},
        {{"-c", "@CONF", "foo"}, "Unknown command 'foo'.\n"},
        {{"-c", "@CONF", "enable-logmanagerx"}, "Unknown command 'enable-logmanagerx'.\n"},
        {{"-c", "@CONF", "Enable-Logmanager"}, "Unknown command 'Enable-Logmanager'.\n"},
        {{"--conf", "@CONF", "--debug", "2", "enable"}, "Unknown command 'enable'.\n"},
        // "-h" after the command word belongs to the command.
        {{"-c", "@CONF", "no-such", "-h"}, "Unknown command 'no-such'.\n"},
    };
    Sandbox sb;
    std::string conf = sb.write_config("tarn.config", {{"root_dir", sb.dir()}});
    const std::string usage = kUsage;
    for (const auto &[words, line] : cases) {
        std::vector<std::string> args;
        for (const auto &a : words)
            args.push_back(a == "@CONF" ? conf : a);
        auto r = run_tool(args);
        EXPECT_EQ(r.status, 255) << line;
        EXPECT_EQ(r.out, "");
        std::string want = line + usage;
        ASSERT_GE(r.err.size(), want.size()) << r.err;
        EXPECT_EQ(r.err.substr(r.err.size() - want.size()), want);
    }
}

TEST(Frame, BadConfigurationFailsBeforeTheCommandWordIsChecked)
{
    Sandbox sb;
    std::string bad = sb.write_file("bad.config", "root_dir = /x\nthis is not a pair\n");
    for (const std::string &path : {std::string("/nonexistent/tarn.config"), bad}) {
        auto r = run_tool({"-c", path, "no-such-command"});
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.err.find(" E Failed to open or parse config file '" + path + "'\n"),
                  std::string::npos)
            << r.err;
        EXPECT_EQ(r.err.find("Unknown command"), std::string::npos);
    }
}

// A configuration that would never end (a device), never come (a FIFO with
// no writer) or is beyond the size limit is refused at once, with the
// reason; replication goes on without one.
TEST(Frame, ConfigurationMustBeABoundedRegularFile)
{
    Sandbox sb;
    std::string fifo = sb.path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::string big = sb.write_file("big.config", "");
    ASSERT_EQ(truncate(big.c_str(), (16 << 20) + 1), 0);
    const std::pair<std::string, std::string> cases[] = {
        {"/dev/zero", "not a regular file"},
        {fifo, "not a regular file"},
        {sb.dir(), "not a regular file"},
        {big, "larger than 16 MiB"},
    };
    tarn_test::RunOptions quick;
    quick.timeout_ms = 5000;
    for (const auto &[path, reason] : cases) {
        auto r = run_tool({"-c", path, "enable-logmanager"}, quick);
        EXPECT_EQ(r.status, 1) << path;
        EXPECT_NE(
            r.err.find(" E Failed to open or parse config file '" + path + "': " + reason + "\n"),
            std::string::npos)
            << r.err;
        r = run_tool({"-c", path, "replication"}, quick);
        EXPECT_EQ(r.status, 0) << path << ": " << r.err;
    }
}

// Out of memory ends through the runtime's report (status 134, a source
// location), never through an exception that escapes to std::terminate.
TEST(Frame, OutOfMemoryEndsThroughTheRuntimesReport)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's own allocator needs the address space this test takes away";
#else
    if (tarn_test::run({"strace", "-qq", "-o", "/dev/null", "true"}).status != 0)
        GTEST_SKIP() << "strace is missing or may not trace here";
    Sandbox sb;
    std::string conf = sb.write_config("tarn.config", {{"root_dir", sb.dir()}});
    bool stack_failed = false;
    // The n-th mmap of each thread fails: sooner or later the coroutine's
    // stack (the loader's own failures end before main and are not ours).
    for (int n = 1; n <= 30 && !stack_failed; n++) {
        auto r = tarn_test::run({"strace", "-f", "-qq", "-o", "/dev/null", "-e",
                                 "inject=mmap:error=ENOMEM:when=" + std::to_string(n),
                                 tarn_test::tool_path(), "-c", conf, "nfs"});
        EXPECT_EQ(r.err.find("terminate called"), std::string::npos) << n << ": " << r.err;
        stack_failed =
            r.err.find(" E out of memory for a coroutine stack at ") != std::string::npos;
        if (stack_failed) {
            EXPECT_EQ(r.status, 134) << r.err;
        }
    }
    EXPECT_TRUE(stack_failed) << "no run failed to map the coroutine stack";

    // The configuration's strings under a small address-space limit.
    std::string big;
    for (int i = 0; big.size() < (12u << 20); i++)
        big += "key" + std::to_string(i) + " = " + std::string(100, 'v') + "\n";
    std::string path = sb.write_file("big.config", big);
    auto r = tarn_test::run({"sh", "-c",
                             "ulimit -v 30000; exec '" + tarn_test::tool_path() + "' -c '" + path +
                                 "' enable-logmanager"});
    EXPECT_EQ(r.status, 134) << r.err;
    EXPECT_NE(r.err.find(" E out of memory at "), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("terminate called"), std::string::npos) << r.err;
#endif
}

} // namespace
