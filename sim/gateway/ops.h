// The simulator's operations (internal): each takes the request object,
// fills the answer and returns 0 or a positive runtime error code.
#pragma once

#include "state.h"

#include <boost/json.hpp>
#include <dirent.h>

namespace gwsim
{

using op_fn = int (*)(state &, const boost::json::object &, boost::json::object &);

// The request's text field `key`, or "" when missing; a name or path also
// from its base64url form (see ember_proto::get_name).
std::string field(const boost::json::object &o, const char *key);
int64_t int_field(const boost::json::object &o, const char *key);
// The account of a path: its first component.
std::string account_of(const std::string &path);

// True for "/" and for "/" followed by components that are neither empty,
// "." nor "..", without NUL bytes.
bool path_syntax_ok(const std::string &path);
// The local name of the request path `path` under the data directory: 0;
// 30 when malformed; 8 when a component before the last is missing, not a
// directory or a symbolic link. `make_parents` makes missing directories
// (0700) instead. The last component is left to the caller.
int resolve_path(const state &st, const std::string &path, std::string &local,
                 bool make_parents = false);
// A regular file, not a link to one.
bool is_regular(const std::string &local);
// Opens the directory `local`, not through a link at its end: 0, 9 or 8.
int open_dir(const std::string &local, DIR **out);
// The request's "path", which must name a regular file: 0, 30 or 8.
int file_of(const state &st, const boost::json::object &o, std::string &path);

int op_secret_get(state &, const boost::json::object &, boost::json::object &);
int op_secret_set(state &, const boost::json::object &, boost::json::object &);
int op_pull_configure(state &, const boost::json::object &, boost::json::object &);
int op_pull_ondemand(state &, const boost::json::object &, boost::json::object &);
int op_file_state(state &, const boost::json::object &, boost::json::object &);
int op_file_open(state &, const boost::json::object &, boost::json::object &);
int op_file_close(state &, const boost::json::object &, boost::json::object &);
int op_dir_stat(state &, const boost::json::object &, boost::json::object &);
int op_dir_list(state &, const boost::json::object &, boost::json::object &);
int op_repl_enable(state &, const boost::json::object &, boost::json::object &);
int op_repl_disable(state &, const boost::json::object &, boost::json::object &);
int op_repl_detach(state &, const boost::json::object &, boost::json::object &);
int op_repl_switch(state &, const boost::json::object &, boost::json::object &);
int op_repl_join(state &, const boost::json::object &, boost::json::object &);
// Peer requests carry the MAC of their body instead of a grant.
using peer_fn = int (*)(state &, const boost::json::object &, const std::string &body,
                        const std::string &mac, boost::json::object &);
// The peer operation served at `target`, or null.
peer_fn peer_op(const std::string &target);
// True when `mac` signs `body` under the account's secret of `kind`.
bool peer_authentic(const state &st, const std::string &account, int kind, const std::string &body,
                    const std::string &mac);
// Sends `body`, signed with `secret`, to `target` of the gateway at `addr`
// through st.send_peer: 0 and the answer in `out`, or an error code (80
// without a sender). The state may change during the call (see
// peer_sender).
int peer_call(state &st, const std::string &addr, const char *target,
              const boost::json::object &body, const std::string &secret, boost::json::object &out);
int op_peer_replica(state &, const boost::json::object &, const std::string &body,
                    const std::string &mac, boost::json::object &);
int op_peer_pull_list(state &, const boost::json::object &, const std::string &body,
                      const std::string &mac, boost::json::object &);
int op_peer_pull_read(state &, const boost::json::object &, const std::string &body,
                      const std::string &mac, boost::json::object &);
int op_peer_pull_remove(state &, const boost::json::object &, const std::string &body,
                        const std::string &mac, boost::json::object &);

// Runs the pull configured for the new account `account`: fetches the
// source account's tree, removes the source when the flags ask for it and
// records "done" or "failed: CODE" as the pull's status. 0 or the error
// code; 8 when no pull is configured for it. Calls peers (see peer_call).
int run_pull(state &st, const std::string &account);

int op_test_dump(state &, const boost::json::object &, boost::json::object &);
int op_test_fault(state &, const boost::json::object &, boost::json::object &);
int op_test_pull_run(state &, const boost::json::object &, boost::json::object &);

} // namespace gwsim
