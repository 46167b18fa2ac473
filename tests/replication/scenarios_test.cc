// The replication operations end to end: the real tool against two
// simulated sites, "dc-a" (master) and "dc-b" (slave), each holding the
// account "/acc". A scenario prepares the sites (through their data
// directories, their faults or the tool itself), runs the tool once, and
// checks the sites' state.
#include "gateway_sim.h"
#include "sandbox.h"

#include <boost/json.hpp>
#include <cstring>
#include <gtest/gtest.h>
#include <sstream>

namespace json = boost::json;
using ember_test::Sim;

namespace
{

// Takes the first blank-separated word off `line`.
std::string word(std::string &line)
{
    size_t sp = line.find(' ');
    std::string w = line.substr(0, sp);
    line = sp == std::string::npos ? "" : line.substr(sp + 1);
    return w;
}

json::object dump(const Sim &s)
{
    return json::parse(s.dump()).as_object();
}

std::string secret(const Sim &s)
{
    json::object state = dump(s);
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
    // Runs "replication" with the sites given, then the words of `ops`.
    tarn_test::RunResult run(std::string ops, const Sim &master, const Sim &slave)
    {
        std::vector<std::string> args = {"-c", "/nonexistent", "replication"};
        auto site = [&](const std::string &r, const std::string &addr, const Sim &sim,
                        const char *pem) {
            args.insert(args.end(), {"--" + r + "-addr", addr, "--" + r + "-uid", sim.uid(),
                                     "--" + r + "-cert", ember_test::pki_file(pem)});
        };
        site("master", master.addr(), master, "site-rsa.pem");
        site("slave", &slave == &b && !slave_addr.empty() ? slave_addr : slave.addr(), slave,
             "web-ec.pem");
        while (!ops.empty())
            args.push_back(word(ops));
        tarn_test::RunOptions opts;
        opts.env = {"SSL_CERT_FILE=" + ember_test::pki_file("ca.pem")};
        return tarn_test::run_tool(args, opts);
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
        json::object replicas = dump(sim).at("replicas").as_object();
        if (verb == "replicas")
            return std::to_string(replicas.size());
        const json::value *r = replicas.if_contains(line);
        if (!r || !r->at("enabled").as_bool())
            return "";
        return std::string(r->at("is_master").as_bool() ? "master " : "replica ") +
               std::string(r->at("peer_uid").as_string());
    }
    // Replaces @A, @B (addresses), @SA, @SB (secrets), @NOTE and @Enn
    // (strerror(nn)).
    std::string expand(std::string text)
    {
        for (auto [key, value] : {std::pair{"@SA", secret(a)},
                                  {"@SB", secret(b)},
                                  {"@NOTE", note},
                                  {"@A", a.addr()},
                                  {"@B", b.addr()}})
            for (size_t i; (i = text.find(key)) != std::string::npos;)
                text.replace(i, strlen(key), value);
        for (size_t i; (i = text.find("@E")) != std::string::npos;)
            text.replace(i, 4, strerror(std::stoi(text.substr(i + 2, 2))));
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
};

// One deviation each, and the message that names it.
const Scenario kConsistency[] = {
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
     " E failed to list files in '/acc' on master: -80 (@E80)\n", {}},
    {"slave listing fails", "enable; fault b {\"op\": \"/v1/dir/list\", \"error\": 80}", kCheck, 1,
     " E failed to list files in '/acc' on slave: -80 (@E80)\n", {}},
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

TEST(ReplicationOps, Table)
{
    for (const Scenario &sc : kOperations)
        run_scenario(sc);
}

TEST(ReplicationConsistency, Table)
{
    for (const Scenario &sc : kConsistency)
        run_scenario(sc);
}

} // namespace
