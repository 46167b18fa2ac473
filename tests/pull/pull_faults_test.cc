// The pull command on a bad day: a gateway that stalls, and system calls
// that fail at every step of the info-file protocol.
#include "frame/tarn_ctl.h"
#include "mox/mox.h"
#include "pull/pull.h"
#include "pull_test_util.h"

#include <co_runner.h>
#include <filesystem>
#include <getopt.h>
#include <gtest/gtest.h>

namespace fs = std::filesystem;
using pull_test::PullEnv;

namespace
{

// The tool's own deadline is 120 s per step; the step's context inherits an
// earlier one, so a stall is shown here with a deadline of half a second.
TEST(PullFaults, StalledGatewayEndsTheStepWithTimeout)
{
    PullEnv env;
    env.src.mkdir("/acc");
    env.src.fault(R"({"op":"/v1/trust-secret/set","delay_ms":5000})");
    std::vector<std::string> args = {
        "pull", env.src.addr(),   "--src-cert", env.cert("web-ec.pem"), "--src-dc-uid",
        "u",    "--pull-account", "acc"};
    args.insert(args.begin() + 1, "--src");
    EXPECT_EXIT(
        {
            setenv("SSL_CERT_FILE", env.cert("ca.pem").c_str(), 1);
            config = mox_read_config(env.config.c_str());
            std::vector<char *> argv;
            for (auto &a : args)
                argv.push_back(a.data());
            optind = 0;
            opterr = 0;
            parse_opts_pull(static_cast<int>(argv.size()), argv.data());
            tarn_test::run_in_coroutine([] {
                mox_context *ctx = mox_context_alloc();
                mox_context_set_timeout(ctx, 500);
                mox_co_set_ctx(ctx);
                mox_context_put(ctx);
                exec_pull();
            });
            exit(0);
        },
        testing::ExitedWithCode(1),
        "E failed to set trust secret for source account 'acc': -110 \\(timed out\\)");
}

bool strace_usable()
{
    return tarn_test::run({"strace", "-qq", "-o", "/dev/null", "true"}).status == 0;
}

// A system call that fails on one file of the info-file protocol, and the
// step the tool must then name. The copy's final name is known only later.
struct StepFault {
    const char *call;
    const char *file; // in the account directory; "" for the directory itself, "@" the source
    const char *error;
    const char *message;
};

const StepFault kStepFaults[] = {
    {"mkdir", "", "EACCES", "failed to create a directory '%D' for an account to pull: -13"},
    {"newfstatat", ".info", "EIO", "failed to stat '%D.info': -5"},
    {"openat", "@", "EACCES", "failed to copy '%C' to '%D.pull.src-cert-tmp': -13"},
    {"pread64", "@", "EIO", "failed to copy '%C' to '%D.pull.src-cert-tmp': -5"},
    {"openat", ".pull.src-cert-tmp", "EIO", "failed to copy '%C' to '%D.pull.src-cert-tmp': -5"},
    {"pwrite64", ".pull.src-cert-tmp", "ENOSPC",
     "failed to copy '%C' to '%D.pull.src-cert-tmp': -28"},
    {"fsync", ".pull.src-cert-tmp", "EIO", "failed to copy '%C' to '%D.pull.src-cert-tmp': -5"},
    {"rename", ".pull.src-cert-tmp", "EIO", "failed to rename '%D.pull.src-cert-tmp' to '"},
    {"openat", ".info-tmp", "ENOSPC", "failed to open '%D.info-tmp': -28"},
    {"pwrite64", ".info-tmp", "ENOSPC",
     "failed to write a .info file for 'acc': write() returned "
     "-28 instead of "},
    {"fsync", ".info-tmp", "EIO", "failed to fsync a .info file for 'acc': -5"},
    {"rename", ".info-tmp", "EIO", "failed to rename '%D.info-tmp' to '%D.info': -5"},
};

std::string expand(std::string text, const std::string &dir, const std::string &cert)
{
    for (auto [mark, value] : {std::pair<std::string, std::string>{"%D", dir}, {"%C", cert}})
        for (size_t at; (at = text.find(mark)) != std::string::npos;)
            text.replace(at, 2, value);
    return text;
}

// Under its final name a file is complete: ".info" whole and naming a copy
// that exists, every certificate copy byte for byte.
void expect_no_partial_file(const PullEnv &env, const std::string &cert_text,
                            const std::string &what)
{
    for (const auto &name : env.files("acc")) {
        std::string text = tarn_test::read_file(env.acc("acc", name));
        if (name == ".info") {
            size_t at = text.find("pull.src-cert=") + 14;
            std::string copy = text.substr(at, text.find('\n', at) - at);
            EXPECT_TRUE(text.size() > 15 &&
                        text.compare(text.size() - 15, 15, "\npull.started=0") == 0 &&
                        fs::exists(copy))
                << what << ": partial or dangling .info: " << text;
        } else if (name.rfind(".pull.src-cert.", 0) == 0) {
            EXPECT_EQ(text, cert_text) << what << ": partial copy " << name;
        } else {
            EXPECT_TRUE(name == ".info-tmp" || name == ".pull.src-cert-tmp")
                << what << ": stray " << name;
        }
    }
}

TEST(PullFaults, EveryStepFailsCleanlyAndSaysWhichStep)
{
    if (!strace_usable())
        GTEST_SKIP() << "strace is missing or may not trace here";
    PullEnv env;
    std::string cert = env.cert("web-ec.pem"), dir = env.acc("acc");
    std::string cert_text = tarn_test::read_file(cert);
    tarn_test::RunOptions opts;
    opts.env = {"SSL_CERT_FILE=" + env.cert("ca.pem")};
    for (const StepFault &f : kStepFaults) {
        fs::remove_all(dir);
        std::string target = std::string(f.file) == "@" ? cert : dir + f.file;
        std::string what = std::string(f.call) + " on " + target;
        auto r = tarn_test::run({"strace", "-f", "-qq", "-o", "/dev/null", "-P", target, "-e",
                                 std::string("inject=") + f.call + ":error=" + f.error + ":when=1",
                                 tarn_test::tool_path(), "-c", env.config, "pull", "--src", "S",
                                 "--src-cert", cert, "--pull-account", "acc"},
                                opts);
        EXPECT_EQ(r.status, 1) << what << ": " << r.err;
        EXPECT_NE(r.err.find(" E " + expand(f.message, dir, cert)), std::string::npos)
            << what << ": " << r.err;
        expect_no_partial_file(env, cert_text, what);
        if (std::string(f.message).rfind("failed to copy", 0) == 0) {
            EXPECT_FALSE(fs::exists(dir + ".pull.src-cert-tmp")) << what;
        }
    }
}

} // namespace
