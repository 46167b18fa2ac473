// The replication command end to end: its options through the real binary,
// "--auto" on a sandboxed root, and the operations against two simulated
// sites, "dc-a" (master) and "dc-b" (slave), each holding the account
// "/acc". A scenario prepares the sites (through their data directories,
// their faults or the tool itself), runs the tool once, and checks the
// sites' state.
#include "co_runner.h"
#include "frame/tarn_ctl.h"
#include "gateway_sim.h"
#include "replication/replication.h"
#include "sandbox.h"

#include <boost/json.hpp>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>

namespace fs = std::filesystem;
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
        {"@M --slave-addr a --slave-uid u --enable /acc", 255, "--enable slave"},
        {"@S --disable /acc", 255, "--disable master"},
        {"--master-addr a --master-uid u --switch-to-slave /acc", 255, "--switch-to-slave master"},
        {"--auto", 255, "--auto slave"},
        {"@S --auto /acc", 255, "Can't parse '/acc' as an argument.\n"},
        {"-f", 255, "Unknown option '-f'.\n"},
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
    // Files under the root ("conf.d/" makes the directory), the key naming
    // the root in the configuration ("" for no configuration), and a part of
    // stderr ("" for success; @root and @conf are the paths).
    const struct {
        const char *files, *key, *err;
    } rows[] = {
        {"conf.d/", "root_dir", ""},
        {"conf.d/replication.auto conf.d/-replication.auto.tmp", "root_dir", ""},
        {"", "root_dir",
         " E failed to create '@root/conf.d/-replication.auto.tmp': -2 (No such file or "
         "directory)\n"},
        {"conf.d/", "other",
         " E --auto needs the gateway configuration: cannot read 'root_dir' from '@conf': -8 "
         "(not found)\n"},
        {"conf.d/", "",
         " E --auto needs the gateway configuration: cannot read 'root_dir' from '@conf', "
         "which cannot be opened or parsed\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.files) + " " + row.key);
        tarn_test::Sandbox sb;
        std::string root = sb.mkdir("root"), conf = sb.path("tarn.config"), err = row.err;
        for (const auto &f : words(row.files))
            f.ends_with("/") ? (void)sb.mkdir("root/" + f)
                             : (void)sb.write_file("root/" + f, std::string(300, 'x'), 0644);
        if (*row.key)
            sb.write_config("tarn.config", {{row.key, root}});
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
        EXPECT_EQ(int(fs::status(sb.path("root/conf.d/replication.auto")).permissions()),
                  strchr(row.files, ' ') ? 0644 : 0600)
            << "the reused file";
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

// Takes the first blank-separated word off `line`.
std::string word(std::string &line)
{
    size_t sp = line.find(' ');
    std::string w = line.substr(0, sp);
    line = sp == std::string::npos ? "" : line.substr(sp + 1);
    return w;
}

std::string secret(const Sim &s)
{
    json::object state = json::parse(s.dump()).as_object();
    const json::value *v = state.at("secrets").as_object().if_contains("acc");
    const json::value *text = v ? v->as_object().if_contains("1") : nullptr;
    return text ? std::string(text->as_string()) : "";
}

struct Sites {
    Sim a{"dc-a"}, b{"dc-b"};
    std::string note;       // a value a step keeps for the checks ("@NOTE")
    std::string slave_addr; // where the tool reaches the slave b, if not at b

    Sites()
    {
        a.mkdir("/acc");
        b.mkdir("/acc");
    }
    // Runs "replication" with the sites given, then `ops`.
    tarn_test::RunResult run(const std::string &ops, const Sim &master, const Sim &slave)
    {
        std::string slave_at = &slave == &b && !slave_addr.empty() ? slave_addr : slave.addr();
        std::vector<std::string> args = {
            "--master-addr", master.addr(),   "--master-uid",
            master.uid(),    "--master-cert", ember_test::pki_file("site-rsa.pem"),
            "--slave-addr",  slave_at,        "--slave-uid",
            slave.uid(),     "--slave-cert",  ember_test::pki_file("web-ec.pem")};
        for (const auto &w : words(ops))
            args.push_back(w);
        return replication("/nonexistent", args);
    }
    // Steps: "files" (f1, f2 and sub/f3 on the master), "enable" (files, then
    // enable), "mkdir|write|rm a|b PATH", "fault a|b JSON", "tool OPS...",
    // "note" (keep the master's secret), "slave-down" (the tool reaches no
    // slave), "third slave|master|secret UID": a third site UID becomes the
    // slave of the master's files, the master of "/acc/c1" on the slave (and
    // the master joins the slave again, so the secrets agree), or only gives
    // the slave a secret of its own.
    void step(const std::string &text)
    {
        std::string line = text, verb = word(line);
        if (verb == "files" || verb == "enable") {
            a.mkdir("/acc/sub");
            for (const char *f : {"/acc/f1", "/acc/f2", "/acc/sub/f3"})
                a.write(f);
            if (verb == "enable")
                step("tool --enable /acc");
        } else if (verb == "tool") {
            auto r = run(line, a, b);
            ASSERT_EQ(r.status, 0) << text << ": " << r.err;
        } else if (verb == "note") {
            note = secret(a);
        } else if (verb == "slave-down") {
            slave_addr = "127.0.0.1:1";
        } else if (std::string which = word(line); verb == "third") {
            Sim c(line);
            c.mkdir("/acc");
            c.write("/acc/c1");
            bool slave = which == "slave";
            ASSERT_EQ(run("--enable /acc", slave ? a : c, slave ? c : b).status, 0);
            if (which == "master")
                step("tool --join-slave /acc");
        } else {
            const Sim &sim = which == "b" ? b : a;
            if (verb == "mkdir")
                sim.mkdir(line);
            else if (verb == "write")
                sim.write(line);
            else if (verb == "rm")
                ASSERT_EQ(system(("rm -r " + sim.data() + line).c_str()), 0);
            else if (verb == "fault")
                sim.fault(line);
            else
                FAIL() << "unknown step " << text;
        }
    }
    // A value of the sites' state: "secret a", "secret-len b", "replicas a",
    // "replica b /acc/f1" ("master dc-a", "replica dc-b" or "").
    std::string query(const std::string &what)
    {
        std::string line = what, verb = word(line), which = word(line);
        const Sim &sim = which == "b" ? b : a;
        if (verb == "secret")
            return secret(sim);
        if (verb == "secret-len")
            return std::to_string(secret(sim).size());
        json::object replicas = json::parse(sim.dump()).at("replicas").as_object();
        if (verb == "replicas")
            return std::to_string(replicas.size());
        const json::value *r = replicas.if_contains(line);
        if (!r || !r->at("enabled").as_bool())
            return "";
        return std::string(r->at("is_master").as_bool() ? "master " : "replica ") +
               std::string(r->at("peer_uid").as_string());
    }
    // Replaces @A, @B (addresses), @SA, @SB (secrets) and @NOTE.
    std::string expand(std::string text)
    {
        for (auto [key, value] : {std::pair{"@SA", secret(a)},
                                  {"@SB", secret(b)},
                                  {"@NOTE", note},
                                  {"@A", a.addr()},
                                  {"@B", b.addr()}})
            replace(text, key, value);
        return text;
    }
};

struct Scenario {
    const char *what;
    const char *steps; // separated by "; "
    const char *ops;
    int status;
    const char *err; // a part of standard error; "" for none at all
    std::vector<std::pair<std::string, std::string>> expect; // query, value
};

void run_scenario(const Scenario &sc)
{
    SCOPED_TRACE(sc.what);
    Sites s;
    std::string steps = sc.steps;
    for (size_t i; !steps.empty(); steps = i == std::string::npos ? "" : steps.substr(i + 2)) {
        i = steps.find("; ");
        s.step(steps.substr(0, i));
    }
    auto r = s.run(sc.ops, s.a, s.b);
    EXPECT_EQ(r.status, sc.status) << r.err;
    std::string want = s.expand(sc.err);
    if (want.empty())
        EXPECT_EQ(r.err, "");
    else
        EXPECT_NE(r.err.find(want), std::string::npos) << "want: " << want << "\ngot: " << r.err;
    for (const auto &[what, value] : sc.expect)
        EXPECT_EQ(s.query(what), s.expand(value)) << what;
}

const char kCheck[] = "--check-consistency /acc --check-consistency /acc";

// clang-format off
const Scenario kOperations[] = {
    {"enable makes a secret", "files", "--enable /acc", 0, "",
     {{"secret-len a", "40"}, {"secret b", "@SA"}, {"replica a /acc/sub/f3", "master dc-b"},
      {"replica b /acc/sub/f3", "replica dc-a"}}},
    {"enable keeps the master's secret", "enable; note", "--enable /acc", 0, "",
     {{"secret a", "@NOTE"}, {"secret b", "@NOTE"}}},
    {"enable with only directories and temporary files",
     "mkdir a /acc/d/e; write a /acc/.tmp.1.xml; write a /acc/d/~x.kpa.meta", "--enable /acc",
     0, "", {{"secret-len b", "40"}, {"replicas a", "0"}}},
    {"disable, slave down", "enable; fault b {\"op\": \"/v1/peer/replica\", \"drop\": true}",
     "--disable /acc", 1, " E failed to disable replication on '/acc/f1': -80 (I/O error)\n",
     {}},
    {"disable --force, slave down",
     "enable; fault b {\"op\": \"/v1/peer/replica\", \"drop\": true}; slave-down",
     "--disable /acc --force", 0,
     " W failed to clear the secret string for account '/acc' on host 127.0.0.1:1: -111 (",
     {{"secret a", ""}, {"secret-len b", "40"}, {"replica a /acc/f1", ""}, {"replica a /acc/sub/f3", ""}}},
    {"join-slave needs the slave's secret", "files", "--join-slave /acc", 1,
     " E failed to query the secret string on '/acc' from @B: -8 (not found)\n", {}},
    {"join-slave", "enable", "--join-slave /acc", 0, "", {{"replica a /acc/f1", "master dc-b"}}},
    {"switch-to-slave without a secret", "files", "--switch-to-slave /acc", 1,
     " E failed to query the secret string on '/acc' from @A: -8 (not found)\n", {{"replicas a", "0"}}},
    {"switch-to-slave", "enable", "--switch-to-slave /acc", 0, "",
     {{"replica a /acc/f1", "replica dc-b"}, {"replica b /acc/f1", "master dc-a"}}},
    {"detach talks to the slave only", "enable", "--detach /acc", 0, "",
     {{"secret b", ""}, {"replica b /acc/f1", ""}, {"secret-len a", "40"},
      {"replica a /acc/f1", "master dc-b"}}},
    {"detach clears the secret before the files",
     "enable; fault b {\"op\": \"/v1/file/replication/detach\", \"error\": 80}", "--detach /acc",
     1, " E failed to detach replica on '/acc/f1': -80 (I/O error)\n", {{"secret b", ""}}},
    {"the second operation breaks the account rule", "files", "--enable /acc --detach acc",
     1, " E use: --detach /account\n", {{"replica a /acc/f1", "master dc-b"}}},
    // One consistency deviation each, and the message that names it.
    {"consistent", "enable", kCheck, 0, "", {}},
    {"a file missing on the slave is not reported", "enable; rm b /acc/f2", kCheck, 0, "", {}},
    {"a temporary file on the master is not examined", "enable; write a /acc/.tmp.1.xml", kCheck, 0, "", {}},
    {"no secret on the master", "files", kCheck, 1,
     " E failed to query the secret string on '/acc' from @A: -8 (not found)\n", {}},
    {"no secret on the slave", "enable; tool --detach /acc", kCheck, 1,
     " E failed to query the secret string on '/acc' from @B: -8 (not found)\n", {}},
    {"different secrets", "enable; third secret dc-c", kCheck, 1,
     " E replication secrets are inequal on master and slave, master: '@SA', slave: '@SB'\n", {}},
    {"master listing fails", "enable; fault a {\"op\": \"/v1/dir/list\", \"error\": 80}", kCheck, 1,
     " E failed to list files in '/acc' on master: -80 (Accessing a corrupted shared library)\n", {}},
    {"slave listing fails", "enable; fault b {\"op\": \"/v1/dir/list\", \"error\": 80}", kCheck, 1,
     " E failed to list files in '/acc' on slave: -80 (Accessing a corrupted shared library)\n", {}},
    {"no state on the master",
     "enable; fault a {\"op\": \"/v1/file/state\", \"path\": \"/acc/f2\", \"error\": 80}", kCheck, 1,
     " E failed to get file state for '/acc/f2' on master: -80 (I/O error)\n", {}},
    {"no state on the slave", "enable; fault b {\"op\": \"/v1/file/state\", \"error\": 80}", kCheck, 1,
     " E failed to get file state for '/acc/f1' on slave: -80 (I/O error)\n", {}},
    {"unparsable state on the master", "enable; third slave dc-c\nnot configuration", kCheck, 1,
     " E failed to parse info file for '/acc/f1' from master\n", {}},
    {"unparsable state on the slave", "enable; third master dc-c\nnot configuration", kCheck, 1,
     " E failed to parse info file for '/acc/c1' from slave\n", {}},
    {"unreadable key on the master", "enable; third slave dc-c\nreplica.is_master = no", kCheck, 1,
     " E failed to get replica.is_master from config for '/acc/f1' on master: -30 (invalid argument)\n", {}},
    {"unreadable key on the slave", "enable; third master dc-c\nreplica.enabled = on", kCheck, 1,
     " E failed to get replica.enabled from config for '/acc/c1' on slave: -30 (invalid argument)\n", {}},
    {"not enabled on the master", "enable; write a /acc/f15", kCheck, 1,
     " E replication is not enabled on master site for file '/acc/f15'\n", {}},
    {"the master is not the master", "enable; tool --switch-to-slave /acc", kCheck, 1,
     " E replication master is not a master for file '/acc/f1'\n", {}},
    {"wrong slave uid", "enable; third slave DC-B", kCheck, 1,
     " E wrong slave uid in master's config: expected 'dc-b', got 'DC-B' for file '/acc/f1'\n", {}},
    {"a temporary file on the slave is examined", "enable; write b /acc/sub/~x.kpa.meta", kCheck, 1,
     " E replication is not enabled on slave site for file '/acc/sub/~x.kpa.meta'\n", {}},
    {"the slave is a master", "enable; tool --switch-to-slave /acc; rm a /acc/*", kCheck, 1,
     " E slave is a replication master for file '/acc/f1\n", {}},
    {"wrong master uid", "enable; third master DC-A", kCheck, 1,
     " E wrong master uid in slave's config: expected 'dc-a', got 'DC-A' for file '/acc/c1'\n", {}},
    {"a slave file missing on the master", "enable; rm a /acc/f2", kCheck, 1,
     " E failed to open file '/acc/f2' on master: -8 (not found)\n", {}},
    {"closing on the master fails", "enable; fault a {\"op\": \"/v1/file/close\", \"error\": 80}",
     kCheck, 1, " E failed to close file '/acc/f1' on master: -80 (I/O error)\n", {}},
};
// clang-format on

TEST(Replication, OperationsAndConsistency)
{
    for (const Scenario &sc : kOperations)
        run_scenario(sc);
}

} // namespace
