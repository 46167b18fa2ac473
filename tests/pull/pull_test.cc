// The pull command end to end: the real tool against a source and a
// destination simulator over TLS, and the local account tree it writes.
#include "pull_test_util.h"

#include <boost/json.hpp>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace json = boost::json;
using pull_test::kUsage;
using pull_test::PullEnv;

namespace
{

struct OptionCase {
    std::vector<std::string> args;
    std::string err;
    int status;
};

TEST(PullOptions, ReportsBadCommandLines)
{
    const std::string before_p = "--src and --src-cert|--src-jwt must be specified before -p";
    const OptionCase cases[] = {
        {{"-h"}, kUsage, 255},
        {{},
         std::string("ERROR: No --pull-account or --pull-all-accounts given on the command "
                     "line.\n\n") +
             kUsage,
         255},
        {{"--src", "A", "--dst", "B"},
         std::string("ERROR: No --pull-account or --pull-all-accounts given on the command "
                     "line.\n\n") +
             kUsage,
         255},
        {{"--src", "A", "--src-cert", "F", "--pull-account", "x", "z"},
         std::string("Can't parse 'z' as an argument.\n") + kUsage,
         255},
        {{"--src"}, std::string("Unknown option '--src'.\n") + kUsage, 255},
        {{"--auto"}, std::string("Unknown option '--auto'.\n") + kUsage, 255},
        {{"-f"}, std::string("Unknown option '-f'.\n") + kUsage, 255},
        {{"--rename-to", "y", "--pull-account", "x"},
         std::string("ERROR: --rename-to must follow the --pull-account it renames\n\n") + kUsage,
         255},
        {{"--pull-account", "x", "--src", "A", "--src-cert", "F"}, before_p, 0},
        {{"--src", "A", "--pull-account", "x"}, before_p, 0},
        {{"--src", "A", "--src-cert", "F", "--pull-all-accounts", "--src-jwt", "T",
          "--pull-account", "y", "--src", "B", "--pull-all-accounts", "--dst", "D",
          "--enable-ondemand-only", "acc"},
         "--dst-cert|--dst-jwt must be specified before --(disable|enable)-ondemand-only",
         0},
        {{"--src-cert", "F", "--pull-all-accounts"},
         "--src and --src-cert|--src-jwt must be specified before -P",
         0},
    };
    PullEnv env;
    for (const auto &c : cases) {
        auto r = env.pull(c.args);
        std::string line;
        for (const auto &a : c.args)
            line += a + " ";
        EXPECT_EQ(r.status, c.status) << line;
        EXPECT_EQ(r.err, c.err) << line;
    }
}

std::string info_text(const std::string &src, const std::string &account, const std::string &copy,
                      int rm)
{
    return ".type=tarn.acc-data.0\npull.src-host=" + src + "\npull.src-account=" + account +
           "\npull.src-cert=" + copy + "\npull.rm-when-done=" + std::to_string(rm) +
           "\npull.started=0";
}

unsigned mode_of(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

TEST(Pull, InfoFileModeWritesCertificateCopyAndInfo)
{
    PullEnv env;
    std::string cert = env.cert("web-ec.pem");
    auto r = env.pull({"--src", "a.example:8443", "--cert", cert, "--pull-account", "acc",
                       "--rename-to", "new", "--rm-when-done"});
    ASSERT_EQ(r.status, 0) << r.err;
    auto names = env.files("new");
    ASSERT_EQ(names.size(), 2u) << r.err;
    EXPECT_EQ(names[0], ".info");
    ASSERT_EQ(names[1].rfind(".pull.src-cert.", 0), 0u);
    std::string copy = env.acc("new", names[1]);
    EXPECT_EQ(tarn_test::read_file(copy), tarn_test::read_file(cert));
    EXPECT_EQ(tarn_test::read_file(env.acc("new", ".info")),
              info_text("a.example:8443", "acc", copy, 1));
    EXPECT_EQ(mode_of(env.acc("new")), 0700u);
    EXPECT_EQ(mode_of(copy), 0600u);
    EXPECT_EQ(mode_of(env.acc("new", ".info")), 0600u);
}

// An account directory in some earlier state, and what a pull then does.
struct ExistingCase {
    const char *name;
    const char *info;     // content of an existing ".info"; null for none
    const char *leftover; // a temporary file left by an interrupted run
    bool merge;           // --merge-replace
    const char *error;    // the fatal message's text after the path; null: success
};

TEST(Pull, InfoFileModeRespectsAnExistingAccount)
{
    const ExistingCase cases[] = {
        {"no-info", nullptr, nullptr, false, nullptr},
        {"exists", "pull.started=1", nullptr, false,
         "failed: Account info file '%I' exists. Maybe you forgot to pass '--merge-replace' "
         "option"},
        {"not-started", ".type=tarn.acc-data.0\npull.started=0", nullptr, true,
         "Previously configured pull is not started yet. Maybe you need to start it manually. "
         "Account info file: '%I'"},
        {"started", ".type=tarn.acc-data.0\npull.started=1", nullptr, true, nullptr},
        {"no-started-key", ".type=tarn.acc-data.0\n", nullptr, true, nullptr},
        {"other-type", ".type=tarn.other\npull.started=1", nullptr, true,
         "failed: unsupported '.type=tarn.other' in '%I'"},
        {"no-type", "pull.started=1", nullptr, true, "failed to get '.type' from '%I'"},
        {"not-config", "what is this", nullptr, true, "failed to read config from '%I'"},
        {"bad-started", ".type=tarn.acc-data.0\npull.started=yes", nullptr, true,
         "failed to get 'pull.started' from '%I': -30 (invalid argument)"},
        {"info-tmp", nullptr, ".info-tmp", false,
         "failed to open '%D.info-tmp': -17 (File exists)"},
        {"cert-tmp", nullptr, ".pull.src-cert-tmp", false,
         "failed to copy '%C' to '%D.pull.src-cert-tmp': -17 (File exists)"},
    };
    PullEnv env;
    std::string cert = env.cert("site-ec.pem");
    for (const auto &c : cases) {
        std::string dir = env.acc(c.name);
        env.sb.mkdir(std::string("root/var/files/") + c.name);
        if (c.info)
            env.sb.write_file(std::string("root/var/files/") + c.name + "/.info", c.info);
        if (c.leftover)
            env.sb.write_file(std::string("root/var/files/") + c.name + "/" + c.leftover, "");
        std::vector<std::string> args = {"--src",          "S",   "--src-cert", cert,
                                         "--pull-account", c.name};
        if (c.merge)
            args.push_back("--merge-replace");
        std::string info_before = tarn_test::read_file(dir + ".info");
        auto r = env.pull(args);
        if (!c.error) {
            EXPECT_EQ(r.status, 0) << c.name << ": " << r.err;
            EXPECT_NE(tarn_test::read_file(dir + ".info").find("pull.started=0"), std::string::npos)
                << c.name;
            continue;
        }
        std::string want = c.error;
        for (auto [mark, value] :
             {std::pair<std::string, std::string>{"%I", dir + ".info"}, {"%D", dir}, {"%C", cert}})
            if (auto at = want.find(mark); at != std::string::npos)
                want.replace(at, 2, value);
        EXPECT_EQ(r.status, 1) << c.name;
        EXPECT_NE(r.err.find(" E " + want + "\n"), std::string::npos) << c.name << ": " << r.err;
        EXPECT_EQ(tarn_test::read_file(dir + ".info"), info_before) << c.name;
        for (const auto &f : env.files(c.name))
            EXPECT_TRUE(f == ".info" || f.rfind(".pull.src-cert.", 0) == 0 || f == c.leftover)
                << c.name << ": " << f;
    }
}

TEST(Pull, InfoFileModeRefusesWhatItCannotWrite)
{
    PullEnv env;
    std::string cert = env.cert("site-ec.pem");
    struct {
        std::vector<std::string> args;
        std::vector<std::pair<std::string, std::string>> config;
        std::string error;
    } cases[] = {
        {{"--src", "S", "--src-cert", "/nonexistent.pem", "--pull-account", "a"},
         {},
         "failed to copy '/nonexistent.pem' to '" + env.acc("a") +
             ".pull.src-cert-tmp': -2 (No such file or directory)"},
        {{"--src", "S", "--src-jwt", "h.p.s", "--pull-account", "b"},
         {},
         "failed to pull account 'b': --src-cert is required without --src-dc-uid"},
        {{"--src", "S", "--src-cert", cert, "--pull-account", "c", "--rename-to", "../c"},
         {},
         "failed to pull account 'c': '../c' is not a valid account name"},
        {{"--src", "S", "--src-cert", cert, "--pull-account", "d"},
         {{"root_dir", ""}},
         "failed to find a line 'root_dir = </absolute/path>' in TARN config file: -8 (not "
         "found)"},
    };
    for (const auto &c : cases) {
        env.configure(c.config);
        auto r = env.pull(c.args);
        EXPECT_EQ(r.status, 1) << c.error;
        EXPECT_NE(r.err.find(" E " + c.error + "\n"), std::string::npos) << r.err;
    }
    // A failed copy leaves no temporary file; nothing was made for the rest.
    EXPECT_TRUE(env.files("a").empty());
    for (const char *name : {"b", "c", "d"})
        EXPECT_FALSE(std::filesystem::exists(env.acc(name))) << name;
}

TEST(Pull, AllAccountsInInfoFileModeStopsAtTheFirstFailure)
{
    PullEnv env;
    for (const char *a : {"a1", "a2", "a3", "a4"})
        env.src.mkdir(std::string("/") + a);
    env.sb.mkdir("root/var/files/a3");
    env.sb.write_file("root/var/files/a3/.info", "pull.started=1");
    std::string web = env.cert("web-ec.pem");
    auto r = env.pull({"--src", env.src.addr(), "--src-cert", web, "--pull-all-accounts"}, 2);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(" I a1\n"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("Account info file '" + env.acc("a3") + ".info' exists"),
              std::string::npos)
        << r.err;
    EXPECT_EQ(env.files("a1").size(), 2u);
    EXPECT_EQ(env.files("a2").size(), 2u);
    EXPECT_EQ(env.files("a3"), std::vector<std::string>{".info"});
    EXPECT_FALSE(std::filesystem::exists(env.acc("a4")));

    // A certificate without the web client usage is refused before listing.
    std::string plain = env.cert("site-ec.pem");
    r = env.pull({"--src", env.src.addr(), "--src-cert", plain, "--pull-all-accounts"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(" E certificate in '" + plain + "' is not a 'web certificate'\n"),
              std::string::npos)
        << r.err;
    EXPECT_NE(env.src.dump().find("\"listings\":0"), std::string::npos);
}

TEST(Pull, AllAccountsListsEveryPage)
{
    PullEnv env;
    const int n = 2001; // three listing pages
    env.timeout_ms = 240000; // a TLS handshake per account, ten times slower under TSan
    for (int i = 0; i < n; i++)
        env.src.mkdir("/acc" + std::to_string(i));
    auto r = env.pull({"--src", env.src.addr(), "--src-cert", env.cert("web-ec.pem"),
                       "--src-dc-uid", "dc-src", "--pull-all-accounts"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(json::parse(env.dst.dump()).as_object()["pulls"].as_object().size(), size_t(n));
}

json::object dump(const ember_test::Sim &sim)
{
    return json::parse(sim.dump()).as_object();
}

std::string text(const json::value &v)
{
    return v.is_string() ? std::string(v.as_string()) : json::serialize(v);
}

std::string secret_of(const ember_test::Sim &sim, const char *account, const char *kind)
{
    auto d = dump(sim);
    const json::value *s = d["secrets"].as_object().if_contains(account);
    return s && s->as_object().contains(kind) ? std::string(s->at(kind).as_string()) : "";
}

TEST(Pull, TrustModeSharesOneSecretWithTheLocalGateway)
{
    PullEnv env;
    env.src.mkdir("/acc");
    env.src.mkdir("/other");
    // No destination setting: the local gateway, with its own certificate
    // turned into a self-issued JWT.
    auto r = env.pull({"--src", env.src.addr(), "--src-cert", env.cert("site-rsa.pem"),
                       "--src-dc-uid", "dc-src", "--pull-account", "acc", "--rename-to", "new",
                       "--pull-all-accounts", "--rm-when-done"},
                      7);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find(" D JWT for pull:\n"), std::string::npos);
    auto pulls = dump(env.dst)["pulls"].as_object();
    for (auto [src_name, dst_name] :
         {std::pair{"acc", "new"}, {"acc", "acc"}, {"other", "other"}}) {
        ASSERT_TRUE(pulls.contains(dst_name)) << dst_name;
        auto p = pulls[dst_name].as_object();
        EXPECT_EQ(text(p["src"]), env.src.addr());
        EXPECT_EQ(text(p["src_account"]), src_name);
        EXPECT_EQ(text(p["src_dc_uid"]), "dc-src");
        EXPECT_EQ(text(p["flags"]), "5");
        EXPECT_EQ(p["secret"].as_string().size(), 40u);
    }
    // The last pull of "acc" replaced its secret on the source.
    EXPECT_EQ(secret_of(env.src, "acc", "2"), text(pulls["acc"].as_object()["secret"]));
    EXPECT_EQ(secret_of(env.src, "other", "2"), text(pulls["other"].as_object()["secret"]));
    EXPECT_TRUE(std::filesystem::is_empty(env.root + "/var/files"));
}

TEST(Pull, TrustModeRefusesMergeReplaceAfterStoringTheSecret)
{
    PullEnv env;
    env.src.mkdir("/acc");
    auto r = env.pull({"--src", env.src.addr(), "--src-cert", env.cert("site-rsa.pem"), "--dst",
                       env.dst.addr(), "--dst-cert", env.cert("web-ec.pem"), "--src-dc-uid",
                       "dc-src", "--merge-replace", "--pull-account", "acc"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(" E --merge-replace is not supported with --src-dc-uid\n"),
              std::string::npos)
        << r.err;
    EXPECT_EQ(secret_of(env.src, "acc", "2").size(), 40u);
    EXPECT_TRUE(dump(env.dst)["pulls"].as_object().empty());
}

TEST(Pull, CommandsRunInCommandLineOrder)
{
    PullEnv env;
    env.src.mkdir("/a");
    env.src.mkdir("/c");
    env.dst.mkdir("/b");
    std::string web = env.cert("web-ec.pem");
    // The on-demand switch runs last, on the local gateway, whatever --dst
    // said; it fails for an account the gateway does not have.
    auto r =
        env.pull({"--src", env.src.addr(), "--src-cert", web, "--pull-account", "a", "--rename-to",
                  "a2", "--pull-all-accounts", "--dst", "nowhere:1", "--dst-cert", web,
                  "--enable-ondemand-only", "b", "--disable-ondemand-only", "missing"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(" E failed to set pull.ondemand_only to 0 for account 'missing': -8 "
                         "(not found)\n"),
              std::string::npos)
        << r.err;
    for (const char *a : {"a2", "a", "c"})
        EXPECT_TRUE(std::filesystem::exists(env.acc(a, ".info"))) << a;
    EXPECT_EQ(text(dump(env.dst)["ondemand"].as_object()["b"]), "1");
}

// A gateway that answers with an error, with garbage, or drops the
// connection: the step's message with a negative code.
TEST(Pull, GatewayFailuresEndWithTheStepsMessage)
{
    PullEnv env;
    env.src.mkdir("/acc");
    std::string site = env.cert("site-rsa.pem");
    struct {
        const ember_test::Sim &sim;
        std::string fault;
        std::vector<std::string> args;
        std::string error;
    } cases[] = {
        {env.src,
         R"({"op":"/v1/dir/list","error":80})",
         {"--src", env.src.addr(), "--src-cert", env.cert("web-ec.pem"), "--pull-all-accounts"},
         "failed to list accounts on " + env.src.addr() + ": -80 (I/O error)"},
        {env.src,
         R"({"op":"/v1/dir/list","body":"<html>not json</html>"})",
         {"--src", env.src.addr(), "--src-cert", env.cert("web-ec.pem"), "--pull-all-accounts"},
         "failed to list accounts on " + env.src.addr() + ": -60 (protocol error)"},
        {env.src,
         R"({"op":"/v1/trust-secret/set","drop":true})",
         {"--src", env.src.addr(), "--src-cert", site, "--src-dc-uid", "u", "--pull-account",
          "acc"},
         "failed to set trust secret for source account 'acc': -104 ("},
        {env.dst,
         R"({"op":"/v1/pull/configure","error":1})",
         {"--src", env.src.addr(), "--src-cert", site, "--src-dc-uid", "u", "--pull-account",
          "acc"},
         "failed to configure pull for account 'acc' on destination TARN: -1 (operation not "
         "permitted)"},
        {env.dst,
         R"({"op":"/v1/pull/ondemand-only","error":61})",
         {"--dst-jwt", "eyJhIjoxfQ.eyJhIjoxfQ.c2ln", "--enable-ondemand-only", "acc"},
         "failed to set pull.ondemand_only to 1 for account 'acc': -61 ("},
    };
    for (const auto &c : cases) {
        c.sim.fault(c.fault);
        auto r = env.pull(c.args);
        c.sim.fault(R"({"clear":true})");
        EXPECT_EQ(r.status, 1) << c.error;
        EXPECT_NE(r.err.find(" E " + c.error), std::string::npos) << r.err;
    }
}

} // namespace
