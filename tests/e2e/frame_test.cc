// The command frame as a user meets it: global options, usage, configuration
// loading and dispatch, through the real binary.
#include "sandbox.h"

#include <gtest/gtest.h>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

// The texts themselves are compared in tests/usage.
const std::string kUsage = tarn_test::read_file(TARN_USAGE_DIR "/frame.txt");

// A command line ("@CONF": a valid configuration, "@FIFO", "@BIG", "@BAD":
// refused ones) and its outcome: standard error ends in `err` followed by
// the usage text (status 255; libc's own diagnostic may come first) or in
// the configuration error about the path followed by `err` (status 1).
struct FrameCase {
    std::vector<std::string> args;
    int status;
    std::string err;
};

const FrameCase kCases[] = {
    {{"--he"}, 255, ""},
    {{"-c", "@CONF", "-d", "3"}, 255, "No command specified.\n"},
    // Without a command word the configuration is not even opened.
    {{"-c", "/nonexistent/tarn.config"}, 255, "No command specified.\n"},
    {{"--log-level", "3", "enable-logmanager"}, 255, "Unknown option '--log-level'.\n"},
    {{"-x", "enable-logmanager"}, 255, "Unknown option '-x'.\n"},
    {{"-c"}, 255, "Unknown option '-c'.\n"},
    {{"-c", "@CONF", "enable-logmanagerx"}, 255, "Unknown command 'enable-logmanagerx'.\n"},
    {{"--conf", "@CONF", "--debug", "2", "enable"}, 255, "Unknown command 'enable'.\n"},
    // "-h" after the command word belongs to the command.
    {{"-c", "@CONF", "no-such", "-h"}, 255, "Unknown command 'no-such'.\n"},
    // A bad configuration fails before the command word is checked.
    {{"-c", "/nonexistent/tarn.config", "no-such"}, 1, ""},
    {{"-c", "@BAD", "no-such"}, 1, ""},
    // A configuration that would never end, never come or is too big is
    // refused at once; replication goes on without one.
    {{"-c", "/dev/zero", "enable-logmanager"}, 1, ": not a regular file"},
    {{"-c", "@FIFO", "enable-logmanager"}, 1, ": not a regular file"},
    {{"-c", "@BIG", "enable-logmanager"}, 1, ": larger than 16 MiB"},
    {{"-c", "@FIFO", "replication"}, 0, ""},
    {{"-c", "@BIG", "replication"}, 0, ""},
};

TEST(Frame, CommandLines)
{
    tarn_test::Sandbox sb;
    std::map<std::string, std::string> paths = {
        {"@CONF", sb.write_config("tarn.config", {{"root_dir", sb.dir()}})},
        {"@BAD", sb.write_file("bad.config", "root_dir = /x\nthis is not a pair\n")},
        {"@BIG", sb.write_file("big.config", "")},
        {"@FIFO", sb.path("fifo")}};
    ASSERT_EQ(mkfifo(paths["@FIFO"].c_str(), 0600), 0);
    ASSERT_EQ(truncate(paths["@BIG"].c_str(), (16 << 20) + 1), 0);
    for (const FrameCase &c : kCases) {
        std::vector<std::string> args;
        for (const auto &a : c.args)
            args.push_back(paths.count(a) ? paths[a] : a);
        SCOPED_TRACE(testing::PrintToString(args));
        auto r = tarn_test::run_tool(args);
        ASSERT_FALSE(r.timed_out) << "the tool did not end within 30 s";
        EXPECT_EQ(r.status, c.status) << r.err;
        EXPECT_EQ(r.out, "");
        std::string want = c.status == 255 ? c.err + kUsage
                                           : " E Failed to open or parse config file '" + args[1] +
                                                 "'" + c.err + "\n";
        EXPECT_TRUE(c.status == 0 || r.err.ends_with(want)) << r.err;
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
    tarn_test::Sandbox sb;
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
        EXPECT_TRUE(!stack_failed || r.status == 134) << r.err;
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
