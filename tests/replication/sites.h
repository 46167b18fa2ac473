// Two simulated sites, "dc-a" (master) and "dc-b" (slave), each holding the
// account "/acc", the replication command run against them, and scenarios:
// steps that prepare the sites, one run of the tool, and what must follow.
#pragma once

#include "gateway_sim.h"
#include "sandbox.h"

#include <string>
#include <utility>
#include <vector>

struct Sites {
    ember_test::Sim a{"dc-a"}, b{"dc-b"};
    std::string note;       // a value a step keeps for the checks ("@NOTE")
    std::string slave_addr; // where the tool reaches the slave; b's by default

    Sites();
    // Runs "replication" with `master` and `slave` as the sites, then `ops`.
    tarn_test::RunResult run(const std::vector<std::string> &ops, const ember_test::Sim &master,
                             const ember_test::Sim &slave);
    tarn_test::RunResult run(const std::vector<std::string> &ops) { return run(ops, a, b); }
    // One preparation step, e.g. "enable", "write b /acc/x", "fault a {...}",
    // "tool --detach /acc", "third slave UID" (see sites.cc).
    void step(const std::string &line);
    // A value of the sites' state: "secret a", "secret-len b", "replicas a",
    // "replica b /acc/f1" ("master dc-a", "replica dc-b" or "").
    std::string query(const std::string &what);
    // Replaces @A, @B (addresses), @SA, @SB (secrets), @NOTE and @Enn
    // (strerror(nn)).
    std::string expand(std::string text);
};

struct Scenario {
    const char *what;
    const char *steps; // separated by "; "
    std::vector<std::string> ops;
    int status;
    const char *err; // a part of standard error; "" for none at all
    std::vector<std::pair<std::string, std::string>> expect; // query, value
};
void run_scenario(const Scenario &sc);
