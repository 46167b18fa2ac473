// The replication operations end to end: the real tool against two
// simulated gateways over TLS, each scenario prepared through the sites'
// data directories, their faults or the tool itself.
#include "sites.h"

#include <gtest/gtest.h>

namespace
{

const std::vector<std::string> kCheck = {"--check-consistency", "/acc", "--check-consistency",
                                         "/acc"};

// clang-format off
const Scenario kOperations[] = {
    {"enable makes a secret", "files", {"--enable", "/acc"}, 0, "",
     {{"secret-len a", "40"}, {"secret b", "@SA"}, {"replica a /acc/sub/f3", "master dc-b"},
      {"replica b /acc/sub/f3", "replica dc-a"}}},
    {"enable keeps the master's secret", "enable; note", {"--enable", "/acc"}, 0, "",
     {{"secret a", "@NOTE"}, {"secret b", "@NOTE"}}},
    {"enable with only directories and temporary files",
     "mkdir a /acc/d/e; write a /acc/.tmp.1.xml; write a /acc/d/~x.kpa.meta", {"--enable", "/acc"},
     0, "", {{"secret-len b", "40"}, {"replicas a", "0"}}},
    {"disable, slave down", "enable; fault b {\"op\": \"/v1/peer/replica\", \"drop\": true}",
     {"--disable", "/acc"}, 1, " E failed to disable replication on '/acc/f1': -80 (I/O error)\n",
     {}},
    {"disable --force, slave down",
     "enable; fault b {\"op\": \"/v1/peer/replica\", \"drop\": true}; slave-down",
     {"--disable", "/acc", "--force"}, 0,
     " W failed to clear the secret string for account '/acc' on host 127.0.0.1:1: -111 (",
     {{"secret a", ""}, {"secret-len b", "40"}, {"replica a /acc/f1", ""}, {"replica a /acc/sub/f3", ""}}},
    {"join-slave needs the slave's secret", "files", {"--join-slave", "/acc"}, 1,
     " E failed to query the secret string on '/acc' from @B: -8 (not found)\n", {}},
    {"join-slave", "enable", {"--join-slave", "/acc"}, 0, "", {{"replica a /acc/f1", "master dc-b"}}},
    {"switch-to-slave without a secret", "files", {"--switch-to-slave", "/acc"}, 1,
     " E failed to query the secret string on '/acc' from @A: -8 (not found)\n", {{"replicas a", "0"}}},
    {"switch-to-slave", "enable", {"--switch-to-slave", "/acc"}, 0, "",
     {{"replica a /acc/f1", "replica dc-b"}, {"replica b /acc/f1", "master dc-a"}}},
    {"detach talks to the slave only", "enable", {"--detach", "/acc"}, 0, "",
     {{"secret b", ""}, {"replica b /acc/f1", ""}, {"secret-len a", "40"},
      {"replica a /acc/f1", "master dc-b"}}},
    {"detach clears the secret before the files",
     "enable; fault b {\"op\": \"/v1/file/replication/detach\", \"error\": 80}", {"--detach", "/acc"},
     1, " E failed to detach replica on '/acc/f1': -80 (I/O error)\n", {{"secret b", ""}}},
    {"the second operation breaks the account rule", "files", {"--enable", "/acc", "--detach", "acc"},
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
