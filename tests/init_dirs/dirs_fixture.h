// A sandbox with a gateway configuration and the cluster tool stand-in in
// PATH, for end-to-end runs of the directory commands.
#pragma once

#include "sandbox.h"

#include <gtest/gtest.h>
#include <map>
#include <string>
#include <vector>

namespace tarn_test
{

using AttrMap = std::map<std::string, std::string>;

// The eight directories of the tree, relative to the root ("" is the root).
extern const char *const kTreeDirs[8];

class DirsTest : public ::testing::Test
{
  protected:
    void SetUp() override;

    // Writes the configuration; an empty value leaves the key out.
    void configure(const std::string &storage_type, const std::string &root = "");
    // Runs the tool with "-c <config>" and `args`; `fail_glob` is handed to
    // the stand-in as its failure pattern.
    RunResult run_ctl(const std::vector<std::string> &args, const std::string &fail_glob = "");
    // What the stand-in's get-attr prints for `dir`, as a map.
    AttrMap attrs_of(const std::string &dir);
    // The stand-in's invocations so far, one line each; the log is emptied.
    std::vector<std::string> take_log();
    // `rel` under the root: "storage/" and the like, the root itself for "".
    std::string tree_path(const std::string &rel) const;

    Sandbox sb_;
    std::string root_;   // root_dir
    std::string config_; // the configuration file
};

} // namespace tarn_test
