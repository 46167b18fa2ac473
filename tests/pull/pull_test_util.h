// The pull command's end-to-end set-up: a sandbox holding the local
// gateway's configuration and tree, a source and a destination simulator.
#pragma once

#include "gateway_sim.h"
#include "sandbox.h"

#include <string>
#include <vector>

namespace pull_test
{

extern const char kUsage[];

class PullEnv
{
  public:
    // `extra` are further options of the destination simulator.
    explicit PullEnv(const std::vector<std::string> &dst_extra = {});

    // Runs "quillon-tarn-ctl -c CONFIG [-d LEVEL] pull ARGS...".
    tarn_test::RunResult pull(const std::vector<std::string> &args, int level = -1) const;
    // A path in the local account tree: ROOT/var/files/ACCOUNT/FILE.
    std::string acc(const std::string &account, const std::string &file = "") const;
    // The file names of an account directory, sorted.
    std::vector<std::string> files(const std::string &account) const;
    std::string cert(const std::string &name) const { return ember_test::pki_file(name); }
    // Rewrites the configuration from "key = value" pairs.
    void configure(const std::vector<std::pair<std::string, std::string>> &pairs) const;

    int timeout_ms = 60000; // a run's bound

    tarn_test::Sandbox sb;
    ember_test::Sim src, dst;
    std::string config, root;
};

} // namespace pull_test
