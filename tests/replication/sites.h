// Two simulated sites, "dc-a" (master) and "dc-b" (slave), each holding the
// account "/acc", and the replication command run against them.
#pragma once

#include "gateway_sim.h"
#include "sandbox.h"

#include <boost/json.hpp>
#include <functional>
#include <string>
#include <vector>

struct Sites {
    ember_test::Sim a{"dc-a"}, b{"dc-b"};

    std::string note; // what a row's preparation wants its checks to see

    Sites();
    // Runs "replication" with `master` and `slave` as the sites (the slave
    // reached at `slave_addr` when given), then `ops`.
    tarn_test::RunResult run(const std::vector<std::string> &ops, const ember_test::Sim &master,
                             const ember_test::Sim &slave, const std::string &slave_addr = "");
    tarn_test::RunResult run(const std::vector<std::string> &ops) { return run(ops, a, b); }
    // Writes `files` on the master and enables the account; the run must succeed.
    void enable(const std::vector<std::string> &files);
    // A site's state (the simulator's test dump).
    static boost::json::object dump(const ember_test::Sim &s);
    // The account's replication secret on a site, "" when it has none.
    static std::string secret(const ember_test::Sim &s);
};

// One scenario: prepare the sites, run `ops` from dc-a to dc-b, expect the
// status and a part of standard error ("" for none at all), then check.
struct OpCase {
    const char *what;
    std::function<void(Sites &)> prepare;
    std::vector<std::string> ops;
    int status;
    std::function<std::string(Sites &)> err;
    std::function<void(Sites &)> check;
};
void run_case(const OpCase &c);

// The runtime's text for a negative code, as the tool prints it: "-8 (not found)".
std::string err(int rc);
