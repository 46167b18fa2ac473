// Per-file replication between two simulated gateways. The master tells
// the slave through a peer request signed with the account's kind-1 secret.
#include "ember/protocol.hpp"
#include "ops.h"
#include "transfer.h"

namespace json = boost::json;
namespace p = ember_proto;

namespace gwsim
{
namespace
{

// The body of a peer request about `path` and the secret that signs it,
// copied from the state so that the call can run without its lock.
int prepare(const state &st, const char *action, const std::string &path, json::object &body,
            std::string &secret)
{
    std::string account = account_of(path);
    auto acc = st.secrets.find(account);
    if (acc == st.secrets.end() || !acc->second.count(p::secret_kind_replication))
        return p::err_perm; // no trust between the sites for this account
    secret = acc->second.at(p::secret_kind_replication);
    body = {{"action", action}, {"master_uid", st.uid}, {"master_addr", st.self_addr}};
    p::put_name(body, "account", account);
    p::put_name(body, "path", path);
    return 0;
}

// Sends `action` ("drop" or "promote") on `path` to the peer at `addr`.
int tell_peer(state &st, const std::string &addr, const char *action, const std::string &path)
{
    json::object body, out;
    std::string secret;
    if (int rc = prepare(st, action, path, body, secret); rc != 0)
        return rc;
    return peer_call(st, addr, p::op_peer_replica, body, secret, out);
}

// Copies the file at `path` to the peer at `addr`, one "create" request
// per chunk.
int send_file(state &st, const std::string &addr, const std::string &path)
{
    json::object base;
    std::string secret, local;
    if (int rc = prepare(st, "create", path, base, secret); rc != 0)
        return rc;
    if (int rc = resolve_path(st, path, local); rc != 0)
        return rc;
    chunk_source from = [&local](uint64_t offset, std::string &data, uint64_t &size) {
        return read_chunk(local, offset, p::peer_chunk_max, data, size);
    };
    chunk_sink to = [&](uint64_t offset, const std::string &data, uint64_t size) {
        json::object body = base, out;
        body["offset"] = static_cast<int64_t>(offset);
        body["size"] = static_cast<int64_t>(size);
        body["content"] = p::base64url_encode(data);
        return peer_call(st, addr, p::op_peer_replica, body, secret, out);
    };
    return transfer_file(from, to);
}

bool same_pairing(const replica_state &a, const replica_state &b)
{
    return a.enabled == b.enabled && a.is_master == b.is_master && a.peer_uid == b.peer_uid &&
           a.peer_addr == b.peer_addr;
}

} // namespace

// Each operation re-reads the state after its peer call: another request
// may have changed it meanwhile.
int op_repl_enable(state &st, const json::object &o, json::object &)
{
    std::string path, addr = field(o, "slave_addr"), uid = field(o, "slave_uid");
    if (int rc = file_of(st, o, path); rc != 0)
        return rc;
    if (addr.empty() || uid.empty())
        return p::err_inval;
    if (int rc = send_file(st, addr, path); rc != 0)
        return rc;
    if (int rc = file_of(st, o, path); rc != 0)
        return rc;
    st.replicas[path] = {true, true, uid, addr};
    return 0;
}

int op_repl_disable(state &st, const json::object &o, json::object &)
{
    std::string path;
    if (int rc = file_of(st, o, path); rc != 0)
        return rc;
    replica_state before = st.replicas[path];
    if (before.enabled && before.is_master) {
        int rc = tell_peer(st, before.peer_addr, "drop", path);
        if (rc != 0 && !int_field(o, "force"))
            return rc;
    }
    replica_state &r = st.replicas[path];
    if (!same_pairing(r, before))
        return p::err_inval;
    r = {};
    return 0;
}

int op_repl_detach(state &st, const json::object &o, json::object &)
{
    std::string path;
    if (int rc = file_of(st, o, path); rc != 0)
        return rc;
    replica_state &r = st.replicas[path];
    if (r.is_master)
        return p::err_inval; // only a replica detaches
    r = {};
    return 0;
}

int op_repl_switch(state &st, const json::object &o, json::object &)
{
    std::string path;
    if (int rc = file_of(st, o, path); rc != 0)
        return rc;
    replica_state before = st.replicas[path];
    if (!before.enabled || !before.is_master)
        return p::err_inval;
    if (int rc = tell_peer(st, before.peer_addr, "promote", path); rc != 0)
        return rc;
    replica_state &r = st.replicas[path];
    if (!same_pairing(r, before))
        return p::err_inval;
    r.is_master = false;
    return 0;
}

int op_repl_join(state &st, const json::object &o, json::object &)
{
    std::string path, uid = field(o, "slave_uid");
    if (int rc = file_of(st, o, path); rc != 0)
        return rc;
    replica_state before = st.replicas[path];
    std::string addr = before.peer_uid == uid ? before.peer_addr : std::string();
    if (addr.empty() && st.peer_addrs.count(uid))
        addr = st.peer_addrs[uid];
    if (uid.empty() || addr.empty())
        return p::err_noent; // no way to reach that slave
    if (int rc = send_file(st, addr, path); rc != 0)
        return rc;
    if (int rc = file_of(st, o, path); rc != 0)
        return rc;
    st.replicas[path] = {true, true, uid, addr};
    return 0;
}

// A "create" comes in chunks (see write_chunk); the file becomes a
// replica with its last one. Without "size" the chunk is the whole file.
int op_peer_replica(state &st, const json::object &o, const std::string &body,
                    const std::string &mac, json::object &)
{
    std::string account = field(o, "account"), path = field(o, "path"), local;
    if (!peer_authentic(st, account, p::secret_kind_replication, body, mac))
        return p::err_auth;
    if (account_of(path) != account || !path_syntax_ok(path))
        return p::err_inval;
    std::string action = field(o, "action");
    replica_state &r = st.replicas[path];
    if (action == "create") {
        std::string data;
        if (int rc = resolve_path(st, path, local, true); rc != 0)
            return rc;
        if (!p::base64url_decode(field(o, "content"), data))
            return p::err_io;
        int64_t offset = int_field(o, "offset");
        int64_t size =
            o.contains("size") ? int_field(o, "size") : offset + static_cast<int64_t>(data.size());
        if (offset < 0 || size < 0)
            return p::err_inval;
        if (int rc = write_chunk(local, offset, data, size); rc != 0)
            return rc;
        if (offset + static_cast<int64_t>(data.size()) == size)
            r = {true, false, field(o, "master_uid"), field(o, "master_addr")};
    } else if (action == "drop") {
        r = {};
    } else if (action == "promote") {
        r.enabled = true;
        r.is_master = true;
    } else {
        return p::err_inval;
    }
    return 0;
}

} // namespace gwsim
