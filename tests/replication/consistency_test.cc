// The consistency check: each row sets up one deviation (through the
// simulators' data directories, their faults or the tool itself) and expects
// the one message that names it.
#include "sites.h"

#include <cstring>
#include <gtest/gtest.h>
#include <unistd.h>

namespace
{

const std::vector<std::string> kFiles = {"/acc/f1", "/acc/f2", "/acc/sub/f3"};

void enabled(Sites &s)
{
    s.a.mkdir("/acc/sub");
    s.enable(kFiles);
}

// A third site `uid` makes itself the master of "/acc/c1" on the slave, then
// the real master joins the slave again, so the secrets agree once more.
void foreign_master_on_slave(Sites &s, const std::string &uid)
{
    enabled(s);
    ember_test::Sim c(uid);
    c.mkdir("/acc");
    c.write("/acc/c1");
    ASSERT_EQ(s.run({"--enable", "/acc"}, c, s.b).status, 0);
    ASSERT_EQ(s.run({"--join-slave", "/acc"}).status, 0);
}

// The master's files replicate to a third site `uid` instead of the slave.
void master_replicates_elsewhere(Sites &s, const std::string &uid)
{
    enabled(s);
    ember_test::Sim c(uid);
    c.mkdir("/acc");
    ASSERT_EQ(s.run({"--enable", "/acc"}, s.a, c).status, 0);
}

std::string msg(const std::string &text)
{
    return " E " + text + "\n";
}

std::string on(const char *what, const char *site, const char *path, int rc)
{
    return msg(std::string("failed to ") + what + " '" + path + "' on " + site + ": " + err(rc));
}

std::string listing(const char *site)
{
    return msg(std::string("failed to list files in '/acc' on ") + site + ": -80 (" + strerror(80) +
               ")");
}

const OpCase kCases[] = {
    {"consistent", enabled, {}, 0, [](Sites &) { return ""; }, nullptr},
    {"a file missing on the slave is not reported",
     [](Sites &s) {
         enabled(s);
         unlink((s.b.data() + "/acc/f2").c_str());
     },
     {},
     0,
     [](Sites &) { return ""; },
     nullptr},
    {"a temporary file on the master is not examined",
     [](Sites &s) {
         enabled(s);
         s.a.write("/acc/.tmp.1.xml");
     },
     {},
     0,
     [](Sites &) { return ""; },
     nullptr},
    {"no secret on the master",
     [](Sites &s) { s.a.write("/acc/f1"); },
     {},
     1,
     [](Sites &s) {
         return msg("failed to query the secret string on '/acc' from " + s.a.addr() + ": " +
                    err(-8));
     },
     nullptr},
    {"no secret on the slave",
     [](Sites &s) {
         enabled(s);
         ASSERT_EQ(s.run({"--detach", "/acc"}).status, 0);
     },
     {},
     1,
     [](Sites &s) {
         return msg("failed to query the secret string on '/acc' from " + s.b.addr() + ": " +
                    err(-8));
     },
     nullptr},
    {"different secrets",
     [](Sites &s) {
         enabled(s);
         ember_test::Sim c("dc-c");
         c.mkdir("/acc");
         ASSERT_EQ(s.run({"--enable", "/acc"}, c, s.b).status, 0);
     },
     {},
     1,
     [](Sites &s) {
         return msg("replication secrets are inequal on master and slave, master: '" +
                    Sites::secret(s.a) + "', slave: '" + Sites::secret(s.b) + "'");
     },
     nullptr},
    {"master listing fails",
     [](Sites &s) {
         enabled(s);
         s.a.fault(R"({"op": "/v1/dir/list", "error": 80})");
     },
     {},
     1,
     [](Sites &) { return listing("master"); },
     nullptr},
    {"slave listing fails",
     [](Sites &s) {
         enabled(s);
         s.b.fault(R"({"op": "/v1/dir/list", "error": 80})");
     },
     {},
     1,
     [](Sites &) { return listing("slave"); },
     nullptr},
    {"no state on the master",
     [](Sites &s) {
         enabled(s);
         s.a.fault(R"({"op": "/v1/file/state", "path": "/acc/f2", "error": 80})");
     },
     {},
     1,
     [](Sites &) { return on("get file state for", "master", "/acc/f2", -80); },
     nullptr},
    {"no state on the slave",
     [](Sites &s) {
         enabled(s);
         s.b.fault(R"({"op": "/v1/file/state", "error": 80})");
     },
     {},
     1,
     [](Sites &) { return on("get file state for", "slave", "/acc/f1", -80); },
     nullptr},
    {"unparsable state on the master",
     [](Sites &s) { master_replicates_elsewhere(s, "dc-c\nnot configuration"); },
     {},
     1,
     [](Sites &) { return msg("failed to parse info file for '/acc/f1' from master"); },
     nullptr},
    {"unparsable state on the slave",
     [](Sites &s) { foreign_master_on_slave(s, "dc-c\nnot configuration"); },
     {},
     1,
     [](Sites &) { return msg("failed to parse info file for '/acc/c1' from slave"); },
     nullptr},
    {"unreadable is_master on the master",
     [](Sites &s) { master_replicates_elsewhere(s, "dc-c\nreplica.is_master = no"); },
     {},
     1,
     [](Sites &) {
         return msg("failed to get replica.is_master from config for '/acc/f1' on master: " +
                    err(-30));
     },
     nullptr},
    {"unreadable enabled on the slave",
     [](Sites &s) { foreign_master_on_slave(s, "dc-c\nreplica.enabled = on"); },
     {},
     1,
     [](Sites &) {
         return msg("failed to get replica.enabled from config for '/acc/c1' on slave: " +
                    err(-30));
     },
     nullptr},
    {"not enabled on the master",
     [](Sites &s) {
         enabled(s);
         s.a.write("/acc/f15");
     },
     {},
     1,
     [](Sites &) { return msg("replication is not enabled on master site for file '/acc/f15'"); },
     nullptr},
    {"the master is not the master",
     [](Sites &s) {
         enabled(s);
         ASSERT_EQ(s.run({"--switch-to-slave", "/acc"}).status, 0);
     },
     {},
     1,
     [](Sites &) { return msg("replication master is not a master for file '/acc/f1'"); },
     nullptr},
    {"wrong slave uid",
     [](Sites &s) { master_replicates_elsewhere(s, "DC-B"); },
     {},
     1,
     [](Sites &) {
         return msg("wrong slave uid in master's config: expected 'dc-b', got 'DC-B' for file "
                    "'/acc/f1'");
     },
     nullptr},
    {"a temporary file on the slave is examined",
     [](Sites &s) {
         enabled(s);
         s.b.write("/acc/sub/~x.kpa.meta");
     },
     {},
     1,
     [](Sites &) {
         return msg("replication is not enabled on slave site for file '/acc/sub/~x.kpa.meta'");
     },
     nullptr},
    {"the slave is a master",
     [](Sites &s) {
         enabled(s);
         ASSERT_EQ(s.run({"--switch-to-slave", "/acc"}).status, 0);
         ASSERT_EQ(system(("rm -r '" + s.a.data() + "/acc/'*").c_str()), 0);
     },
     {},
     1,
     [](Sites &) { return msg("slave is a replication master for file '/acc/f1"); },
     nullptr},
    {"wrong master uid",
     [](Sites &s) { foreign_master_on_slave(s, "DC-A"); },
     {},
     1,
     [](Sites &) {
         return msg("wrong master uid in slave's config: expected 'dc-a', got 'DC-A' for file "
                    "'/acc/c1'");
     },
     nullptr},
    {"a slave file missing on the master",
     [](Sites &s) {
         enabled(s);
         unlink((s.a.data() + "/acc/f2").c_str());
     },
     {},
     1,
     [](Sites &) { return on("open file", "master", "/acc/f2", -8); },
     nullptr},
    {"closing on the master fails",
     [](Sites &s) {
         enabled(s);
         s.a.fault(R"({"op": "/v1/file/close", "error": 80})");
     },
     {},
     1,
     [](Sites &) { return on("close file", "master", "/acc/f1", -80); },
     nullptr},
};

TEST(ReplicationConsistency, Table)
{
    for (OpCase c : kCases) {
        c.ops = {"--check-consistency", "/acc", "--check-consistency", "/acc"};
        run_case(c);
    }
}

} // namespace
