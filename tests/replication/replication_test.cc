// The replication command end to end: its options through the real binary,
// "--auto" on a sandboxed root, and the operations against two simulated
// sites over TLS.
#include "co_runner.h"
#include "frame/tarn_ctl.h"
#include "gateway_sim.h"
#include "replication/replication.h"
#include "sandbox.h"

#include <boost/json.hpp>
#include <cstring>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>

namespace json = boost::json;
using ember_test::Sim;

namespace
{

void replace(std::string &s, const std::string &key, const std::string &value)
{
    for (size_t i = 0; (i = s.find(key, i)) != std::string::npos; i += value.size())
        s.replace(i, key.size(), value);
}

// The words of `line`; "''" is an empty one.
std::vector<std::string> words(const std::string &line)
{
    std::vector<std::string> out;
    std::istringstream in(line);
    for (std::string w; in >> w;)
        out.push_back(w == "''" ? "" : w);
    return out;
}

tarn_test::RunResult replication(const std::string &config, const std::vector<std::string> &args)
{
    std::vector<std::string> argv = {"-c", config, "replication"};
    argv.insert(argv.end(), args.begin(), args.end());
    tarn_test::RunOptions opts;
    opts.env = {"SSL_CERT_FILE=" + ember_test::pki_file("ca.pem")};
    return tarn_test::run_tool(argv, opts);
}

TEST(Replication, OptionTable)
{
    auto help = replication("/nonexistent", {"-h"});
    ASSERT_EQ(help.status, 255);
    ASSERT_TRUE(help.err.starts_with("Account and file replication tool.\n")) << help.err;
    // @M and @S give a whole site. Status 255: what precedes the usage text,
    // "OP SITE" for the line saying that OP needs SITE; otherwise a part of
    // stderr ("" for none at all).
    const struct {
        const char *args;
        int status;
        std::string err;
    } rows[] = {
        {"", 0, ""},
        {"--force", 0, ""},
        {"--enable /acc @M @S", 255, "--enable master"},
        {"@M --enable /acc @S", 255, "--enable slave"},
        {"@M --slave-addr a --slave-uid u --enable /acc", 255, "--enable slave"},
        {"@M --disable /acc", 255, "--disable slave"},
        {"@S --disable /acc", 255, "--disable master"},
        {"--join-slave /acc", 255, "--join slave"},
        {"@S --join-slave /acc", 255, "--join master"},
        {"@M --check-consistency /acc", 255, "--check-consistency slave"},
        {"@S --check-consistency /acc", 255, "--check-consistency master"},
        {"@M --detach /acc", 255, "--detach slave"},
        {"@S --switch-to-slave /acc", 255, "--switch-to-slave master"},
        {"--master-addr a --master-uid u --switch-to-slave /acc", 255, "--switch-to-slave master"},
        {"--auto", 255, "--auto slave"},
        {"@S --auto=x", 255, "Unknown option '--auto=x'.\n"},
        {"@S --auto /acc", 255, "Can't parse '/acc' as an argument.\n"},
        {"-f", 255, "Unknown option '-f'.\n"},
        {"--master x", 255, "Unknown option '--master'.\n"},
        {"--enable", 255, "Unknown option '--enable'.\n"},
        {"--he", 255, ""},
        // Empty arguments count as given; the account is refused only when
        // the operation runs, after the ones before it.
        {"--master-addr '' --master-uid '' --master-cert '' --switch-to-slave acc", 1,
         " E use: --switch-to-slave /account\n"},
        {"@S --detach /a/b", 1, " E use: --detach /account\n"},
        {"@M @S --check acc", 1, " E use: --check-consistency /account\n"},
        {"@M @S --join-s acc/", 1, " E use: --join-to-slave /account\n"},
        {"@M @S --enable ''", 1, " E use: --enable /account\n"},
        {"@M @S --disable x --enable /", 1, " E use: --disable /account\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.args);
        std::string line = row.args, want = row.err;
        replace(line, "@M", "--master-addr a --master-uid u --master-cert c");
        replace(line, "@S", "--slave-addr a --slave-uid u --slave-cert c");
        auto r = replication("/nonexistent/tarn.config", words(line));
        EXPECT_EQ(r.status, row.status) << r.err;
        if (want.starts_with("--")) { // an operation that needs a site
            std::string op = want.substr(0, want.find(' ')), site = want.substr(op.size() + 1);
            want = "ERROR: " + op + ": --" + site + "-addr, --" + site + "-uid, and --" + site +
                   "-cert are required\n\n";
        }
        if (row.status == 255)
            EXPECT_EQ(r.err, want + help.err);
        else if (want.empty())
            EXPECT_EQ(r.err, "");
        else
            EXPECT_NE(r.err.find(want), std::string::npos) << r.err;
    }
}

TEST(Replication, TemporaryFilesAndAccountPaths)
{
    const std::pair<const char *, int> temp[] = {
        {"/acc/.tmp.1234.xml", 1}, {".tmp.xml", 1},       {"/acc/a.xml", 0},
        {"/acc/~x.kpa.meta", 1},   {"~x.KPA.meta", 1},    {"/a/~.kpa.meta", 1},
        {"/acc/x.kpa.meta", 0},    {"/a/~x.Kpa.meta", 0}, {"/acc/.tmp.dir/file.xml", 0},
        {"/acc/.tmp", 0}};
    for (const auto &[path, want] : temp)
        EXPECT_EQ(fes_file_is_temp(path), want) << path;
    const std::pair<const char *, int> top[] = {{"/acc", 1},  {"/", 1},        {"acc", 0},
                                                {"/acc/", 0}, {"/acc/sub", 0}, {"", 0}};
    for (const auto &[path, want] : top)
        EXPECT_EQ(is_toplevel_dir(path), want) << path;
}

// "--auto" writes the automatic replication file under the configured root.
TEST(Replication, AutoTable)
{
    // Files under the root ("conf.d/" makes the directory), whether the
    // configuration names the root or exists, and a part of stderr ("" for
    // success; @root and @conf are the paths).
    const struct {
        const char *what;
        std::vector<std::string> files;
        bool root_set, config;
        const char *err;
    } rows[] = {
        {"new file", {"conf.d/"}, true, true, ""},
        {"replaces the file, reuses a leftover",
         {"conf.d/replication.auto", "conf.d/-replication.auto.tmp"},
         true,
         true,
         ""},
        {"no conf.d",
         {},
         true,
         true,
         " E failed to create '@root/conf.d/-replication.auto.tmp': -2 (No such file or "
         "directory)\n"},
        {"no root_dir",
         {"conf.d/"},
         false,
         true,
         " E --auto needs the gateway configuration: cannot read 'root_dir' from '@conf': -8 "
         "(not found)\n"},
        {"no configuration",
         {"conf.d/"},
         true,
         false,
         " E --auto needs the gateway configuration: cannot read 'root_dir' from '@conf', "
         "which cannot be opened or parsed\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        tarn_test::Sandbox sb;
        std::string root = sb.mkdir("root"), conf = sb.path("tarn.config"), err = row.err;
        for (const auto &f : row.files)
            f.ends_with("/") ? (void)sb.mkdir("root/" + f)
                             : (void)sb.write_file("root/" + f, std::string(300, 'x'), 0644);
        if (row.config)
            sb.write_config("tarn.config", {{row.root_set ? "root_dir" : "other", root}});
        // The slave given after "--auto" is not the one it writes.
        auto r = replication(conf, words("--slave-uid dc-b --slave-cert rel/tarn.pem --slave-addr "
                                         "10.0.0.2:8443 --auto --slave-addr other"));
        if (!err.empty()) {
            replace(err, "@root", root);
            replace(err, "@conf", conf);
            EXPECT_EQ(r.status, 1);
            EXPECT_NE(r.err.find(err), std::string::npos) << r.err;
            continue;
        }
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(sb.read_file("root/conf.d/replication.auto"),
                  "replication.auto.enable = y\nreplication.auto.peer_addr = 10.0.0.2:8443\n"
                  "replication.auto.peer_uid = dc-b\nreplication.auto.peer_cert = rel/tarn.pem\n");
        EXPECT_FALSE(sb.exists("root/conf.d/-replication.auto.tmp"));
        struct stat st;
        ASSERT_EQ(stat(sb.path("root/conf.d/replication.auto").c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, row.files.size() == 1 ? 0600u : 0644u) << "the reused file";
    }
}

// Each operation runs in a child of the caller's context: a caller's short
// deadline ends a stalled per-file call, so the 120 s bound needs no 120 s.
TEST(Replication, StalledCallEndsTheOperation)
{
    Sim a("dc-a"), b("dc-b");
    a.mkdir("/acc");
    b.mkdir("/acc");
    a.write("/acc/f1");
    a.fault(R"({"op": "/v1/file/replication/enable", "delay_ms": 5000})");
    EXPECT_EXIT(
        {
            config = nullptr; // the tool may run without a configuration
            tarn_test::run_command(parse_opts_replication, exec_replication,
                                   {"replication", "--master-addr", a.addr(), "--master-uid",
                                    "dc-a", "--master-cert", ember_test::pki_file("site-rsa.pem"),
                                    "--slave-addr", b.addr(), "--slave-uid", "dc-b", "--slave-cert",
                                    ember_test::pki_file("web-ec.pem"), "--enable", "/acc"},
                                   1000);
        },
        testing::ExitedWithCode(1), "failed to enable replication on '/acc/f1': -110 \\(");
}

} // namespace
