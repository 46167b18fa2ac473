// The simulator's operations (internal): each takes the request object,
// fills the answer and returns 0 or a positive runtime error code.
#pragma once

#include "state.h"

#include <boost/json.hpp>

namespace gwsim
{

using op_fn = int (*)(state &, const boost::json::object &, boost::json::object &);

// The request's text field `key`, or "" when missing.
std::string field(const boost::json::object &o, const char *key);
int64_t int_field(const boost::json::object &o, const char *key);
// "/acc/..." under the data directory; false for "..", "." or empty parts.
bool local_path(const state &st, const std::string &path, std::string &out);
// The account of a path: its first component.
std::string account_of(const std::string &path);
bool is_regular(const std::string &local);
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
