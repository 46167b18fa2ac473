// End-to-end test support: a sandbox directory, running programs with a time
// limit and capturing what they print, and private mount namespaces in which
// temporary directories and files stand over fixed system paths.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tarn_test
{

struct RunResult {
    int status = -1;        // exit status; 128 + signal number when killed by a signal
    bool timed_out = false; // killed after RunOptions::timeout_ms
    std::string out;        // standard output
    std::string err;        // standard error
};

struct RunOptions {
    std::vector<std::string> env;  // extra "NAME=value" entries (override inherited ones)
    std::vector<std::string> path; // directories put in front of PATH
    std::string cwd;               // working directory; empty: inherited
    int timeout_ms = 30000;
    // Sent to the program itself, in order and 0.2 s apart, once the file
    // `signal_file` exists and holds `signal_text`.
    std::vector<int> signals;
    std::string signal_file;
    std::string signal_text;
    // Run inside a private mount namespace (private propagation); each pair
    // binds the first path (a file or directory) over the second. A target
    // that does not exist is created inside the namespace only: its parent
    // directory is shadowed by a tmpfs that links every original entry back,
    // so the real file system is never changed.
    bool in_namespace = false;
    std::vector<std::pair<std::string, std::string>> mounts;
};

// Runs argv[0] (looked up in PATH when it has no "/").
RunResult run(const std::vector<std::string> &argv, const RunOptions &opts = {});

// The tool under test, built beside the tests.
std::string tool_path();
// Runs the tool with `args` (program name added).
RunResult run_tool(const std::vector<std::string> &args, const RunOptions &opts = {});

// Null when private mount namespaces may be used here; otherwise why not.
std::optional<std::string> namespace_unavailable_reason();
// Enters a private mount namespace and binds `opts.mounts`, for a process
// about to exec; false with `error` set when a step fails.
bool enter_mount_namespace(const RunOptions &opts, std::string &error);

// Reads a whole file; empty when missing.
std::string read_file(const std::string &path);

// A fresh directory under $TMPDIR (or /tmp), removed with all it holds.
class Sandbox
{
  public:
    Sandbox();
    ~Sandbox();
    Sandbox(const Sandbox &) = delete;
    Sandbox &operator=(const Sandbox &) = delete;

    const std::string &dir() const { return dir_; }
    std::string path(const std::string &rel) const { return dir_ + "/" + rel; }
    // Writes a file (parents created), mode applied exactly.
    std::string write_file(const std::string &rel, const std::string &content,
                           unsigned mode = 0600) const;
    std::string read_file(const std::string &rel) const { return tarn_test::read_file(path(rel)); }
    bool exists(const std::string &rel) const;
    std::string mkdir(const std::string &rel, unsigned mode = 0700) const;
    // Writes "key = value" lines in order; returns the file's path.
    std::string write_config(const std::string &rel,
                             const std::vector<std::pair<std::string, std::string>> &pairs) const;

  private:
    std::string dir_;
};

} // namespace tarn_test

// Skips the current test when mount namespaces are not permitted.
#define TARN_REQUIRE_NAMESPACES()                                                                  \
    do {                                                                                           \
        if (auto why_ = ::tarn_test::namespace_unavailable_reason())                               \
            GTEST_SKIP() << "private mount namespaces unavailable: " << *why_;                     \
    } while (0)
