// The replication operations end to end: the real tool against two
// simulated gateways over TLS.
#include "sites.h"

#include <gtest/gtest.h>

namespace
{

namespace json = boost::json;

// A file's replica state on a site: "enabled master peer", or "" for none.
std::string replica(const ember_test::Sim &s, const char *path)
{
    json::object state = Sites::dump(s);
    const json::value *r = state.at("replicas").as_object().if_contains(path);
    if (!r || !r->as_object().at("enabled").as_bool())
        return "";
    const json::object &o = r->as_object();
    return std::string(o.at("is_master").as_bool() ? "master " : "replica ") +
           std::string(o.at("peer_uid").as_string());
}

std::string none(Sites &)
{
    return "";
}

const std::vector<std::string> kFiles = {"/acc/f1", "/acc/sub/f2"};

void prepare_files(Sites &s)
{
    s.a.mkdir("/acc/sub");
    for (const auto &f : kFiles)
        s.a.write(f);
}

void prepare_enabled(Sites &s)
{
    s.a.mkdir("/acc/sub");
    s.enable(kFiles);
}

// The slave cannot be told anything: peer requests to it fail.
void slave_down(Sites &s)
{
    prepare_enabled(s);
    s.b.fault(R"({"op": "/v1/peer/replica", "drop": true})");
}

const OpCase kCases[] = {
    {"enable makes a secret",
     prepare_files,
     {"--enable", "/acc"},
     0,
     none,
     [](Sites &s) {
         EXPECT_EQ(Sites::secret(s.a).size(), 40u);
         EXPECT_EQ(Sites::secret(s.a), Sites::secret(s.b));
         EXPECT_EQ(replica(s.a, "/acc/sub/f2"), "master dc-b");
         EXPECT_EQ(replica(s.b, "/acc/sub/f2"), "replica dc-a");
     }},
    {"enable keeps the master's secret",
     [](Sites &s) {
         prepare_enabled(s);
         s.note = Sites::secret(s.a);
     },
     {"--enable", "/acc"},
     0,
     none,
     [](Sites &s) {
         EXPECT_EQ(Sites::secret(s.a), s.note);
         EXPECT_EQ(Sites::secret(s.b), s.note);
     }},
    {"enable with only directories and temporary files",
     [](Sites &s) {
         s.a.mkdir("/acc/d/e");
         s.a.write("/acc/.tmp.1.xml");
         s.a.write("/acc/d/~x.kpa.meta");
     },
     {"--enable", "/acc"},
     0,
     none,
     [](Sites &s) {
         EXPECT_EQ(Sites::secret(s.b).size(), 40u);
         EXPECT_EQ(Sites::dump(s.a).at("replicas").as_object().size(), 0u);
     }},
    {"disable without force, slave down",
     slave_down,
     {"--disable", "/acc"},
     1,
     [](Sites &) { return "E failed to disable replication on '/acc/f1': " + err(-80); },
     nullptr},
    {"join-slave needs the slave's secret",
     prepare_files,
     {"--join-slave", "/acc"},
     1,
     [](Sites &s) {
         return "E failed to query the secret string on '/acc' from " + s.b.addr() + ": " + err(-8);
     },
     nullptr},
    {"join-slave",
     prepare_enabled,
     {"--join-slave", "/acc"},
     0,
     none,
     [](Sites &s) { EXPECT_EQ(replica(s.a, "/acc/f1"), "master dc-b"); }},
    {"switch-to-slave without a secret",
     prepare_files,
     {"--switch-to-slave", "/acc"},
     1,
     [](Sites &s) {
         return "E failed to query the secret string on '/acc' from " + s.a.addr() + ": " + err(-8);
     },
     [](Sites &s) { EXPECT_EQ(Sites::dump(s.a).at("replicas").as_object().size(), 0u); }},
    {"switch-to-slave",
     prepare_enabled,
     {"--switch-to-slave", "/acc"},
     0,
     none,
     [](Sites &s) {
         EXPECT_EQ(replica(s.a, "/acc/f1"), "replica dc-b");
         EXPECT_EQ(replica(s.b, "/acc/f1"), "master dc-a");
     }},
    {"detach",
     prepare_enabled,
     {"--detach", "/acc"},
     0,
     none,
     [](Sites &s) {
         EXPECT_EQ(Sites::secret(s.b), "");
         EXPECT_EQ(replica(s.b, "/acc/f1"), "");
         EXPECT_NE(Sites::secret(s.a), "") << "detach talks to the slave only";
         EXPECT_EQ(replica(s.a, "/acc/f1"), "master dc-b");
     }},
    {"detach clears the secret before the files",
     [](Sites &s) {
         prepare_enabled(s);
         s.b.fault(R"({"op": "/v1/file/replication/detach", "error": 80})");
     },
     {"--detach", "/acc"},
     1,
     [](Sites &) { return "failed to detach replica on '/acc/f1': " + err(-80); },
     [](Sites &s) { EXPECT_EQ(Sites::secret(s.b), ""); }},
    {"the second operation breaks the account rule",
     prepare_files,
     {"--enable", "/acc", "--detach", "acc"},
     1,
     [](Sites &) { return "E use: --detach /account\n"; },
     [](Sites &s) { EXPECT_EQ(replica(s.a, "/acc/f1"), "master dc-b"); }},
};

TEST(ReplicationOps, Table)
{
    for (const OpCase &c : kCases)
        run_case(c);
}

// "--force" turns the slave's failure into a warning; the master ends clean.
TEST(ReplicationOps, ForcedDisableWithTheSlaveDown)
{
    Sites s;
    slave_down(s);
    auto r = s.run({"--disable", "/acc", "--force"}, s.a, s.b, "127.0.0.1:1");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find(" W failed to clear the secret string for account '/acc' on host "
                         "127.0.0.1:1: " +
                         err(-111)),
              std::string::npos)
        << r.err;
    EXPECT_EQ(Sites::secret(s.a), "");
    EXPECT_NE(Sites::secret(s.b), "");
    EXPECT_EQ(replica(s.a, "/acc/f1"), "");
    EXPECT_EQ(replica(s.a, "/acc/sub/f2"), "");
}

} // namespace
