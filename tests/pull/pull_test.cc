// The pull command end to end: the real tool against a source and a
// destination simulator over TLS, and the local account tree it writes.
#include "co_runner.h"
#include "frame/tarn_ctl.h"
#include "gateway_sim.h"
#include "mox/mox.h"
#include "pull/pull.h"
#include "sandbox.h"

#include <algorithm>
#include <boost/json.hpp>
#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>

namespace fs = std::filesystem;
namespace json = boost::json;
using ember_test::pki_file;
using tarn_test::read_file;

namespace
{

// The local gateway (its configuration, certificate and account tree in a
// sandbox), a source and a destination simulator.
struct PullEnv {
    tarn_test::Sandbox sb;
    ember_test::Sim src{"dc-src"}, dst{"dc-dst"};
    std::string config = sb.path("tarn.config"), files = sb.mkdir("root/var/files");

    PullEnv()
    {
        sb.write_file("certs/tarn.pem", read_file(pki_file("web-ec.pem")));
        configure(true);
    }
    void configure(bool with_root) const
    {
        std::vector<std::pair<std::string, std::string>> pairs = {{"tarn.private_addr", dst.addr()},
                                                                  {"certs.dir", sb.path("certs")}};
        if (with_root)
            pairs.emplace_back("root_dir", sb.path("root"));
        sb.write_config("tarn.config", pairs);
    }
    // `text` with @S and @D (the simulators' addresses), @F (the account
    // tree), @A (the directory of the account "acc"), @web, @rsa and @ec (certificates with the web
    // client usage, or without, of RSA and EC keys) replaced.
    std::string expand(std::string text) const
    {
        const std::pair<std::string, std::string> marks[] = {{"@S", src.addr()},
                                                             {"@D", dst.addr()},
                                                             {"@F", files},
                                                             {"@A", files + "/acc/"},
                                                             {"@web", pki_file("web-ec.pem")},
                                                             {"@rsa", pki_file("site-rsa.pem")},
                                                             {"@ec", pki_file("site-ec.pem")}};
        for (const auto &[mark, value] : marks)
            for (size_t at; (at = text.find(mark)) != std::string::npos;)
                text.replace(at, mark.size(), value);
        return text;
    }
    // Runs "[ARGV...] quillon-tarn-ctl -c CONFIG WORDS..." with the words of
    // `line` expanded.
    tarn_test::RunResult run(const std::string &line, int timeout_ms = 60000,
                             std::vector<std::string> argv = {}) const
    {
        argv.insert(argv.end(), {tarn_test::tool_path(), "-c", config});
        std::istringstream in(line);
        for (std::string w; in >> w;)
            argv.push_back(expand(w));
        tarn_test::RunOptions o;
        o.env = {"SSL_CERT_FILE=" + pki_file("ca.pem")};
        o.timeout_ms = timeout_ms;
        return tarn_test::run(argv, o);
    }
    // The file names of an account directory, sorted.
    std::vector<std::string> names(const std::string &account) const
    {
        std::vector<std::string> out;
        std::error_code ec;
        for (const auto &e : fs::directory_iterator(files + "/" + account, ec))
            out.push_back(e.path().filename().string());
        std::sort(out.begin(), out.end());
        return out;
    }
};

json::object dump(const ember_test::Sim &sim)
{
    return json::parse(sim.dump()).as_object();
}

std::string text(const json::value &v)
{
    return v.is_string() ? std::string(v.as_string()) : json::serialize(v);
}

TEST(Pull, OptionTable)
{
    PullEnv env;
    auto help = env.run("pull -h");
    ASSERT_EQ(help.status, 255);
    const char none[] =
        "ERROR: No --pull-account or --pull-all-accounts given on the command line.\n\n";
    const char before_p[] = "--src and --src-cert|--src-jwt must be specified before -p";
    // Status 255: what precedes the usage text; otherwise the whole of stderr.
    const struct {
        const char *args;
        int status;
        std::string err;
    } rows[] = {
        {"", 255, none},
        {"--src A --src-cert F --pull-account x z", 255, "Can't parse 'z' as an argument.\n"},
        {"--src", 255, "Unknown option '--src'.\n"},
        {"--rename-to y --pull-account x", 255,
         "ERROR: --rename-to must follow the --pull-account it renames\n\n"},
        {"--pull-account x --src A --src-cert F", 0, before_p},
        {"--src A --pull-account x", 0, before_p},
        {"--src A --src-cert F --pull-all-accounts --src-jwt T --pull-account y --src B "
         "--pull-all-accounts --dst D --enable-ondemand-only acc",
         0, "--dst-cert|--dst-jwt must be specified before --(disable|enable)-ondemand-only"},
        {"--src-cert F --pull-all-accounts", 0,
         "--src and --src-cert|--src-jwt must be specified before -P"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.args);
        auto r = env.run(std::string("pull ") + row.args);
        EXPECT_EQ(r.status, row.status);
        EXPECT_EQ(r.err, row.status == 255 ? row.err + help.err : row.err);
    }
}

// Pulls "acc" in info-file mode from a directory in some earlier state
// (`info` as its ".info", an empty `leftover` of an interrupted run), the
// tool run behind `prefix`, and checks the outcome: the fatal message `error`
// (expanded), or null for success. Under its final name a file is complete:
// a failed run leaves ".info" as it was and every certificate copy whole; a
// failed copy leaves no temporary file behind.
void pull_acc(const PullEnv &env, const char *info, const char *leftover, const std::string &args,
              const std::vector<std::string> &prefix, const char *error)
{
    std::string dir = env.expand("@A"), cert = read_file(pki_file("site-ec.pem"));
    fs::remove_all(dir);
    if (info || leftover)
        env.sb.mkdir("root/var/files/acc");
    if (info)
        env.sb.write_file("root/var/files/acc/.info", info);
    if (leftover)
        env.sb.write_file(std::string("root/var/files/acc/") + leftover, "");
    std::string info_before = read_file(dir + ".info");
    auto r = env.run("pull --src S --cert @ec --pull-account acc" + args, 60000, prefix);
    auto names = env.names("acc");
    if (!error) {
        // A fresh ".info" naming an exact copy of the certificate.
        ASSERT_EQ(names.size(), 2u) << r.err;
        std::string copy = dir + names[1];
        EXPECT_EQ(read_file(copy), cert);
        EXPECT_EQ(
            read_file(dir + ".info"),
            ".type=tarn.acc-data.0\npull.src-host=S\npull.src-account=acc\npull.src-cert=" + copy +
                "\npull.rm-when-done=" + (args.ends_with("done") ? "1" : "0") + "\npull.started=0");
        for (auto [f, mode] : {std::pair{dir, 0700}, {copy, 0600}, {dir + ".info", 0600}})
            EXPECT_EQ(int(fs::status(f).permissions()), mode) << f;
        return;
    }
    std::string message = env.expand(error);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(" E " + message), std::string::npos) << r.err;
    EXPECT_EQ(read_file(dir + ".info"), info_before);
    for (const auto &name : names) {
        if (name.starts_with(".pull.src-cert."))
            EXPECT_EQ(read_file(dir + name), cert) << "partial copy " << name;
        else
            EXPECT_TRUE(name == ".info" || name == ".info-tmp" || (leftover && name == leftover) ||
                        (name == ".pull.src-cert-tmp" && !message.starts_with("failed to copy")))
                << "stray " << name;
    }
}

TEST(Pull, InfoFileModeRespectsAnExistingAccount)
{
    const struct {
        const char *info, *leftover, *args, *error;
    } rows[] = {
        {nullptr, nullptr, " --rm-when-done", nullptr},
        {"pull.started=1", nullptr, "",
         "failed: Account info file '@A.info' exists. Maybe you forgot to pass "
         "'--merge-replace' option\n"},
        {".type=tarn.acc-data.0\npull.started=0", nullptr, " --merge-replace",
         "Previously configured pull is not started yet. Maybe you need to start it manually. "
         "Account info file: '@A.info'\n"},
        {".type=tarn.acc-data.0\npull.started=1", nullptr, " --merge-replace", nullptr},
        {".type=tarn.acc-data.0\n", nullptr, " --merge-replace", nullptr},
        {".type=tarn.other\npull.started=1", nullptr, " --merge-replace",
         "failed: unsupported '.type=tarn.other' in '@A.info'\n"},
        {"pull.started=1", nullptr, " --merge-replace", "failed to get '.type' from '@A.info'\n"},
        {"what is this", nullptr, " --merge-replace", "failed to read config from '@A.info'\n"},
        {".type=tarn.acc-data.0\npull.started=yes", nullptr, " --merge-replace",
         "failed to get 'pull.started' from '@A.info': -30 (invalid argument)\n"},
        {nullptr, ".info-tmp", "", "failed to open '@A.info-tmp': -17 (File exists)\n"},
        {nullptr, ".pull.src-cert-tmp", "",
         "failed to copy '@ec' to '@A.pull.src-cert-tmp': -17 (File exists)\n"},
    };
    PullEnv env;
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.info ? row.info : "") + row.args);
        pull_acc(env, row.info, row.leftover, row.args, {}, row.error);
    }
}

// Bad input, a refused certificate, and a gateway that answers with an
// error, with garbage, or drops the connection: the step's message.
TEST(Pull, FailuresEndWithTheStepsMessage)
{
    const char all[] = "pull --src @S --src-cert @web --pull-all-accounts";
    const char trust[] = "pull --src @S --src-cert @rsa --src-dc-uid u --pull-account acc";
    // The simulator ('S' or 'D') given `fault`, the command, and the fatal
    // message (after " E ").
    const struct {
        char sim;
        const char *fault, *line, *error;
    } rows[] = {
        // Commands run in command-line order; the pull of all accounts stops
        // at the first that fails.
        {0, "",
         "-d 2 pull --src @S --src-cert @web --pull-account a1 --rename-to a0 "
         "--pull-all-accounts",
         "failed: Account info file '@F/a3/.info' exists"},
        {0, "", "pull --src S --src-jwt h.p.s --pull-account b",
         "failed to pull account 'b': --src-cert is required without --src-dc-uid"},
        {0, "", "pull --src S --src-cert @ec --pull-account c --rename-to ../c",
         "failed to pull account 'c': '../c' is not a valid account name"},
        {0, "", "pull --src @S --src-cert @ec --pull-all-accounts",
         "certificate in '@ec' is not a 'web certificate'\n"},
        {0, "",
         "pull --src @S --src-cert @rsa --dst @D --dst-cert @web --src-dc-uid dc-src "
         "--merge-replace --pull-account acc",
         "--merge-replace is not supported with --src-dc-uid\n"},
        {'S', R"({"op":"/v1/dir/list","error":80})", all,
         "failed to list accounts on @S: -80 (I/O error)"},
        {'S', R"({"op":"/v1/dir/list","body":"<html>not json</html>"})", all,
         "failed to list accounts on @S: -60 (protocol error)"},
        {'S', R"({"op":"/v1/trust-secret/set","drop":true})", trust,
         "failed to set trust secret for source account 'acc': -104 ("},
        {'D', R"({"op":"/v1/pull/configure","error":1})", trust,
         "failed to configure pull for account 'acc' on destination TARN: -1 (operation not "
         "permitted)"},
        {'D', R"({"op":"/v1/pull/ondemand-only","error":61})",
         "pull --dst-jwt eyJhIjoxfQ.eyJhIjoxfQ.c2ln --enable-ondemand-only acc",
         "failed to set pull.ondemand_only to 1 for account 'acc': -61 ("},
        {0, "", "pull --dst nowhere:1 --dst-cert @web --disable-ondemand-only missing",
         "failed to set pull.ondemand_only to 0 for account 'missing': -8 (not found)\n"},
        {'R', "", "pull --src S --src-cert @ec --pull-account d",
         "failed to find a line 'root_dir = </absolute/path>' in TARN config file: -8 (not "
         "found)"},
    };
    PullEnv env;
    for (const char *a : {"/acc", "/a1", "/a2", "/a3", "/a4"})
        env.src.mkdir(a);
    env.sb.write_file("root/var/files/a3/.info", "pull.started=1");
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        const ember_test::Sim *sim = row.sim == 'S' ? &env.src : row.sim == 'D' ? &env.dst : 0;
        env.configure(row.sim != 'R');
        if (sim)
            sim->fault(row.fault);
        auto r = env.run(row.line);
        if (sim)
            sim->fault(R"({"clear":true})");
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.err.find(" E " + env.expand(row.error)), std::string::npos) << r.err;
    }
    // Nothing was made for the refused accounts, no pull configured.
    for (const char *name : {"b", "c", "d", "a4"})
        EXPECT_FALSE(fs::exists(env.files + "/" + name)) << name;
    for (const char *a : {"a0", "a1", "a2"})
        EXPECT_EQ(env.names(a).size(), 2u) << a;
    EXPECT_EQ(env.names("a3"), std::vector<std::string>{".info"});
    EXPECT_TRUE(dump(env.dst)["pulls"].as_object().empty());
}

TEST(Pull, TrustModeSharesOneSecretWithTheLocalGateway)
{
    PullEnv env;
    env.src.mkdir("/acc");
    env.src.mkdir("/other");
    for (int i = 0; i < 1999; i++) // 2,001 accounts: three listing pages
        env.src.mkdir("/p" + std::to_string(i));
    env.dst.mkdir("/b");
    // No destination setting for the pulls: the local gateway, with its own
    // certificate turned into a self-issued JWT. The on-demand switch runs
    // last, on the local gateway too. A TLS handshake per account, ten times
    // slower under TSan.
    auto r = env.run("-d 7 pull --src @S --src-cert @rsa --src-dc-uid dc-src --pull-account acc "
                     "--rename-to new --pull-all-accounts --rm-when-done --dst-cert @web "
                     "--enable-ondemand-only b",
                     240000);
    ASSERT_EQ(r.status, 0) << r.err.substr(0, 2000);
    EXPECT_NE(r.err.find(" D JWT for pull:\n"), std::string::npos);
    // -d asked for progress: the pull of all accounts ends with its summary.
    EXPECT_NE(r.err.find(" I pull of all accounts: 2001 accounts in "), std::string::npos);
    auto pulls = dump(env.dst)["pulls"].as_object();
    EXPECT_EQ(pulls.size(), 2002u);
    auto secrets = dump(env.src)["secrets"].as_object();
    for (auto [src_name, dst_name] :
         {std::pair{"acc", "new"}, {"acc", "acc"}, {"other", "other"}}) {
        SCOPED_TRACE(dst_name);
        auto p = pulls[dst_name].as_object();
        EXPECT_EQ(text(p["src"]) + " " + text(p["src_account"]) + " " + text(p["src_dc_uid"]) +
                      " " + text(p["flags"]) + " " + std::to_string(text(p["secret"]).size()),
                  env.src.addr() + " " + src_name + " dc-src 5 40");
    }
    // The last pull of "acc" replaced its secret on the source.
    for (const char *name : {"acc", "other"})
        EXPECT_EQ(text(secrets[name].as_object()["2"]), text(pulls[name].as_object()["secret"]));
    EXPECT_TRUE(fs::is_empty(env.files));
    EXPECT_EQ(text(dump(env.dst)["ondemand"].as_object()["b"]), "1");
    // Without --rm-when-done the source keeps its files.
    r = env.run("pull --src @S --src-cert @rsa --src-dc-uid dc-src --pull-account acc --rename-to "
                "kept");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(text(dump(env.dst)["pulls"].as_object()["kept"].as_object()["flags"]), "4");
}

// The tool's own deadline is 120 s per step; the step's context inherits an
// earlier one, so a stall is shown here with a deadline of half a second.
TEST(Pull, StalledGatewayEndsTheStepWithTimeout)
{
    PullEnv env;
    env.src.mkdir("/acc");
    env.src.fault(R"({"op":"/v1/trust-secret/set","delay_ms":5000})");
    EXPECT_EXIT(
        {
            setenv("SSL_CERT_FILE", pki_file("ca.pem").c_str(), 1);
            config = mox_read_config(env.config.c_str());
            tarn_test::run_command(parse_opts_pull, exec_pull,
                                   {"pull", "--src", env.src.addr(), "--src-cert",
                                    pki_file("web-ec.pem"), "--src-dc-uid", "u", "--pull-account",
                                    "acc"},
                                   500);
        },
        testing::ExitedWithCode(1),
        "E failed to set trust secret for source account 'acc': -110 \\(timed out\\)");
}

// A system call that fails on one file of the info-file protocol (@A the
// account directory, @ec the source certificate), and the step the tool must
// then name. The copy's final name is known only later.
const struct {
    const char *call, *file, *error, *message;
} kStepFaults[] = {
    {"mkdir", "@A", "EACCES", "failed to create a directory '@A' for an account to pull: -13"},
    {"newfstatat", "@A.info", "EIO", "failed to stat '@A.info': -5"},
    {"openat", "@ec", "EACCES", "failed to copy '@ec' to '@A.pull.src-cert-tmp': -13"},
    {"pread64", "@ec", "EIO", "failed to copy '@ec' to '@A.pull.src-cert-tmp': -5"},
    {"openat", "@A.pull.src-cert-tmp", "EIO", "failed to copy '@ec' to '@A.pull.src-cert-tmp': -5"},
    {"pwrite64", "@A.pull.src-cert-tmp", "ENOSPC",
     "failed to copy '@ec' to '@A.pull.src-cert-tmp': -28"},
    {"fsync", "@A.pull.src-cert-tmp", "EIO", "failed to copy '@ec' to '@A.pull.src-cert-tmp': -5"},
    {"rename", "@A.pull.src-cert-tmp", "EIO", "failed to rename '@A.pull.src-cert-tmp' to '"},
    {"openat", "@A.info-tmp", "ENOSPC", "failed to open '@A.info-tmp': -28"},
    {"pwrite64", "@A.info-tmp", "ENOSPC",
     "failed to write a .info file for 'acc': write() returned -28 instead of "},
    {"fsync", "@A.info-tmp", "EIO", "failed to fsync a .info file for 'acc': -5"},
    {"rename", "@A.info-tmp", "EIO", "failed to rename '@A.info-tmp' to '@A.info': -5"},
};

TEST(Pull, EveryStepFailsCleanlyAndSaysWhichStep)
{
    if (tarn_test::run({"strace", "-qq", "-o", "/dev/null", "true"}).status != 0)
        GTEST_SKIP() << "strace is missing or may not trace here";
    PullEnv env;
    for (const auto &f : kStepFaults) {
        SCOPED_TRACE(std::string(f.call) + " on " + f.file);
        pull_acc(env, nullptr, nullptr, "",
                 {"strace", "-f", "-qq", "-o", "/dev/null", "-P", env.expand(f.file), "-e",
                  std::string("inject=") + f.call + ":error=" + f.error + ":when=1"},
                 f.message);
    }
}

} // namespace
