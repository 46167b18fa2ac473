// Test endpoints: the whole state as JSON, and fault injection.
#include "ember/protocol.hpp"
#include "ops.h"

namespace json = boost::json;
namespace p = ember_proto;

namespace gwsim
{
namespace
{

// JSON keys and texts must be UTF-8; other names show as "b64:" and their
// base64url.
std::string shown(const std::string &name)
{
    return p::utf8_valid(name) ? name : "b64:" + p::base64url_encode(name);
}

} // namespace

int op_test_dump(state &st, const json::object &, json::object &out)
{
    json::object secrets, pulls, ondemand, replicas;
    for (auto &[account, kinds] : st.secrets) {
        json::object k;
        for (auto &[kind, text] : kinds)
            k[std::to_string(kind)] = text;
        secrets[shown(account)] = std::move(k);
    }
    for (auto &[account, cfg] : st.pulls) {
        json::object c;
        for (auto &[key, value] : cfg)
            c[key] = shown(value);
        pulls[shown(account)] = std::move(c);
    }
    for (auto &[account, value] : st.ondemand)
        ondemand[shown(account)] = value;
    for (auto &[path, r] : st.replicas)
        replicas[shown(path)] = json::object{{"enabled", r.enabled},
                                             {"is_master", r.is_master},
                                             {"peer_uid", r.peer_uid},
                                             {"peer_addr", r.peer_addr}};
    out["uid"] = st.uid;
    out["secrets"] = std::move(secrets);
    out["pulls"] = std::move(pulls);
    out["ondemand"] = std::move(ondemand);
    out["replicas"] = std::move(replicas);
    out["open_files"] = st.open_files.size();
    out["listings"] = st.listings.size();
    return 0;
}

// {"clear": true} removes every fault; otherwise one fault is added.
int op_test_fault(state &st, const json::object &o, json::object &)
{
    if (int_field(o, "clear")) {
        st.faults.clear();
        return 0;
    }
    fault f{field(o, "op"),
            field(o, "path"),
            static_cast<int>(int_field(o, "error")),
            static_cast<uint32_t>(int_field(o, "delay_ms")),
            int_field(o, "drop") != 0,
            static_cast<int>(int_field(o, "count")),
            int_field(o, "close_after") != 0,
            field(o, "body")};
    if (f.op.empty() || f.error < 0 || f.count < 0 ||
        (!f.error && !f.delay_ms && !f.drop && !f.close_after && f.body.empty()))
        return p::err_inval;
    st.faults.push_back(f);
    return 0;
}

} // namespace gwsim
