// A simulated NFS volume for end-to-end tests of the nfs command. Stand-ins
// (tests/support/nfs) are bound over /bin/mount, /bin/umount, /bin/df,
// /usr/bin/bundlectl and /bin/cat inside a private mount namespace; /bin/grep,
// /usr/bin/wc, /usr/bin/test, /bin/ls and /bin/rm stay the real ones. The
// stand-ins keep a simulated mount table and a log of their calls in a state
// directory inside the sandbox.
#pragma once

#include "sandbox.h"

#include <string>
#include <vector>

namespace tarn_test
{

class NfsSim
{
  public:
    // Sets up the state directory `sb`/nfs-state with an empty mount table.
    // The sandbox must outlive this object.
    explicit NfsSim(const Sandbox &sb);

    // Options that run a program in the namespace with the stand-ins bound
    // and the state directory named in its environment.
    RunOptions options() const;

    const std::string &state_dir() const { return state_; }

    // Adds a mount table line "`source` `target` `type` rw,relatime 0 0".
    void add_mount(const std::string &source, const std::string &target,
                   const std::string &type) const;
    // The simulated mount table as /proc/mounts would show it.
    std::string mount_table() const;
    // One entry per call of `program` ("mount", "umount", "df" or
    // "bundlectl"): its arguments joined by blanks.
    std::vector<std::string> calls(const std::string &program) const;
    // Makes every later call of `program` fail with `exit_code`.
    void fail(const std::string &program, int exit_code) const;
    // Makes every later call of `program` sleep `seconds` after logging it.
    void delay(const std::string &program, const std::string &seconds) const;

  private:
    const Sandbox &sb_;
    std::string state_;
};

} // namespace tarn_test
