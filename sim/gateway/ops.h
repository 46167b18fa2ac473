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
// Peer requests carry the MAC instead of a grant.
int op_peer_replica(state &, const boost::json::object &, const std::string &body,
                    const std::string &mac);
int op_test_dump(state &, const boost::json::object &, boost::json::object &);
int op_test_fault(state &, const boost::json::object &, boost::json::object &);

} // namespace gwsim
