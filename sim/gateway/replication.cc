// Per-file replication between two simulated gateways. The master tells
// the slave through a peer request signed with the account's kind-1 secret.
#include "ember/protocol.hpp"
#include "ops.h"

#include <openssl/hmac.h>

namespace json = boost::json;
namespace p = ember_proto;

namespace gwsim
{
namespace
{

// Sends `action` on `path` to the peer at `addr`; 0 or an error code.
int tell_peer(state &st, const std::string &addr, const std::string &action,
              const std::string &path, bool with_content)
{
    std::string account = account_of(path);
    auto acc = st.secrets.find(account);
    if (acc == st.secrets.end() || !acc->second.count(p::secret_kind_replication))
        return p::err_perm; // no trust between the sites for this account
    json::object body{{"action", action}, {"master_uid", st.uid}, {"master_addr", st.self_addr}};
    p::put_name(body, "account", account);
    p::put_name(body, "path", path);
    if (with_content) {
        std::string local, data;
        if (resolve_path(st, path, local) != 0 || !read_regular(local, data))
            return p::err_io;
        body["content"] = p::base64url_encode(data);
    }
    std::string text = json::serialize(body);
    return st.send_peer(addr, text, peer_mac(acc->second[p::secret_kind_replication], text));
}

} // namespace

int op_repl_enable(state &st, const json::object &o, json::object &)
{
    std::string path, addr = field(o, "slave_addr"), uid = field(o, "slave_uid");
    if (int rc = file_of(st, o, path); rc != 0)
        return rc;
    if (addr.empty() || uid.empty())
        return p::err_inval;
    if (int rc = tell_peer(st, addr, "create", path, true); rc != 0)
        return rc;
    st.replicas[path] = {true, true, uid, addr};
    return 0;
}

int op_repl_disable(state &st, const json::object &o, json::object &)
{
    std::string path;
    if (int rc = file_of(st, o, path); rc != 0)
        return rc;
    replica_state &r = st.replicas[path];
    if (r.enabled && r.is_master) {
        int rc = tell_peer(st, r.peer_addr, "drop", path, false);
        if (rc != 0 && !int_field(o, "force"))
            return rc;
    }
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
    replica_state &r = st.replicas[path];
    if (!r.enabled || !r.is_master)
        return p::err_inval;
    if (int rc = tell_peer(st, r.peer_addr, "promote", path, false); rc != 0)
        return rc;
    r.is_master = false;
    return 0;
}

int op_repl_join(state &st, const json::object &o, json::object &)
{
    std::string path, uid = field(o, "slave_uid");
    if (int rc = file_of(st, o, path); rc != 0)
        return rc;
    replica_state &r = st.replicas[path];
    std::string addr = r.peer_uid == uid ? r.peer_addr : std::string();
    if (addr.empty() && st.peer_addrs.count(uid))
        addr = st.peer_addrs[uid];
    if (uid.empty() || addr.empty())
        return p::err_noent; // no way to reach that slave
    if (int rc = tell_peer(st, addr, "create", path, true); rc != 0)
        return rc;
    r = {true, true, uid, addr};
    return 0;
}

int op_peer_replica(state &st, const json::object &o, const std::string &body,
                    const std::string &mac)
{
    std::string account = field(o, "account"), path = field(o, "path");
    auto acc = st.secrets.find(account);
    if (acc == st.secrets.end() || !acc->second.count(p::secret_kind_replication) ||
        peer_mac(acc->second[p::secret_kind_replication], body) != mac)
        return p::err_auth;
    if (account_of(path) != account || !path_syntax_ok(path))
        return p::err_inval;
    std::string action = field(o, "action");
    replica_state &r = st.replicas[path];
    if (action == "create") {
        std::string data, local;
        if (int rc = resolve_path(st, path, local, true); rc != 0)
            return rc;
        if (!p::base64url_decode(field(o, "content"), data) || !replace_file(local, data))
            return p::err_io;
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

std::string peer_mac(const std::string &secret, const std::string &body)
{
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    HMAC(EVP_sha256(), secret.data(), static_cast<int>(secret.size()),
         reinterpret_cast<const unsigned char *>(body.data()), body.size(), md, &len);
    static const char hex[] = "0123456789abcdef";
    std::string out;
    for (unsigned i = 0; i < len; i++) {
        out.push_back(hex[md[i] >> 4]);
        out.push_back(hex[md[i] & 15]);
    }
    return out;
}

} // namespace gwsim
