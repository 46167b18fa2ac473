// Request dispatch: authentication, access masks, faults, then the operation.
#include "ember/protocol.hpp"
#include "ops.h"

namespace json = boost::json;
namespace p = ember_proto;

namespace gwsim
{
namespace
{

enum class scope { account, path, none };

struct route {
    const char *target;
    op_fn fn;
    uint32_t need; // access bits besides the session bit; 0 for test endpoints
    scope on;
};

const route routes[] = {
    {p::op_secret_get, op_secret_get, p::access_read, scope::account},
    {p::op_secret_set, op_secret_set, 0, scope::account}, // by kind, see needed_bits
    {p::op_pull_configure, op_pull_configure, p::access_account, scope::account},
    {p::op_pull_ondemand, op_pull_ondemand, p::access_account, scope::account},
    {p::op_repl_enable, op_repl_enable, p::access_replica, scope::path},
    {p::op_repl_disable, op_repl_disable, p::access_replica, scope::path},
    {p::op_repl_detach, op_repl_detach, p::access_replica, scope::path},
    {p::op_repl_switch, op_repl_switch, p::access_replica, scope::path},
    {p::op_repl_join, op_repl_join, p::access_replica, scope::path},
    {p::op_file_state, op_file_state, p::access_read, scope::path},
    {p::op_file_open, op_file_open, p::access_read, scope::path},
    {p::op_file_close, op_file_close, p::access_read, scope::none},
    {p::op_dir_stat, op_dir_stat, p::access_read, scope::path},
    {p::op_dir_list, op_dir_list, p::access_read, scope::path},
    {p::op_test_dump, op_test_dump, 0, scope::none},
    {p::op_test_fault, op_test_fault, 0, scope::none},
    {p::op_test_pull_run, op_test_pull_run, 0, scope::none},
};

uint32_t needed_bits(const route &r, const json::object &o)
{
    if (r.fn == op_secret_set)
        return int_field(o, "kind") == p::secret_kind_pull ? p::access_account : p::access_replica;
    return r.need;
}

bool covers(const std::string &grant, const std::string &path)
{
    if (grant == "/" || grant == path)
        return true;
    return path.size() > grant.size() && path.compare(0, grant.size(), grant) == 0 &&
           path[grant.size()] == '/';
}

// 0 when the caller may run `r` on `path`.
int authorize(const state &st, const request &req, const route &r, const std::string &path,
              uint32_t need)
{
    if (r.need == 0 && r.fn != op_secret_set)
        return 0; // test endpoints
    if (req.cert_auth)
        return 0;
    if (req.bearer.empty())
        return p::err_auth;
    std::vector<std::pair<std::string, uint32_t>> grants;
    int rc = verify_jwt(st, req.bearer, grants);
    if (rc != 0)
        return rc;
    need |= p::access_session;
    for (auto &[gpath, mask] : grants)
        if ((mask & need) == need && covers(gpath, path))
            return 0;
    return p::err_perm;
}

// The request fields that carry names or paths, as bytes.
const char *const name_fields[] = {"path", "account", "src_account"};

bool carries_name(std::string_view key)
{
    for (const char *f : name_fields)
        if (key == f)
            return true;
    return false;
}

bool names_well_formed(const json::object &o)
{
    std::string ignored;
    for (const char *f : name_fields)
        if (p::get_name(o, f, ignored) < 0)
            return false;
    return true;
}

// Account names are one component of a path.
bool account_names_ok(const json::object &o)
{
    for (const char *f : {"account", "src_account"}) {
        std::string name = field(o, f);
        if (name == "." || name == ".." ||
            name.find_first_of(std::string_view("/\0", 2)) != name.npos)
            return false;
    }
    return true;
}

response answer(int code, json::object body)
{
    body["error"] = code;
    return {p::status_for_err(code), json::serialize(body)};
}

const int unknown_target = -1;

// Checks a request up to its operation: 0 with the parsed body and its
// route (null for a peer request, whose MAC its operation checks);
// unknown_target; or the error code to answer.
int admit(const state &st, const request &req, json::value &body, const route *&r)
{
    boost::system::error_code ec;
    body = json::parse(req.body, ec);
    if (ec || !body.is_object())
        return p::err_malformed;
    const json::object &o = body.as_object();
    if (!names_well_formed(o) || !account_names_ok(o))
        return p::err_inval;
    r = nullptr;
    if (peer_op(req.target))
        return 0;
    for (const route &candidate : routes)
        if (req.target == candidate.target)
            r = &candidate;
    if (!r)
        return unknown_target;
    std::string path = "/";
    if (r->on == scope::account)
        path += field(o, "account");
    else if (r->on == scope::path)
        path = field(o, "path");
    return authorize(st, req, *r, path, needed_bits(*r, o));
}

} // namespace

response handle_request(state &st, const request &req)
{
    json::value body;
    const route *r = nullptr;
    int rc = admit(st, req, body, r);
    if (rc == unknown_target)
        return {404, json::serialize(json::object{{"error", p::err_inval}})};
    if (rc != 0)
        return answer(rc, {});
    int fault_error = req.fault_error;
    if (fault f; !req.faults_taken && take_fault(st, req.target, req.body, f))
        fault_error = f.error;
    if (fault_error)
        return answer(fault_error, {});
    const json::object &o = body.as_object();
    json::object out;
    rc = r ? r->fn(st, o, out) : peer_op(req.target)(st, o, req.body, req.peer_mac, out);
    return answer(rc, rc == 0 ? std::move(out) : json::object{});
}

bool take_request_fault(state &st, const request &req, fault &out)
{
    json::value body;
    const route *r = nullptr;
    return admit(st, req, body, r) == 0 && take_fault(st, req.target, req.body, out);
}

bool take_fault(state &st, const std::string &target, const std::string &body, fault &out)
{
    if (st.faults.empty() || target == p::op_test_fault)
        return false;
    boost::system::error_code ec;
    json::value v = json::parse(body, ec);
    std::string path = (!ec && v.is_object()) ? field(v.as_object(), "path") : "";
    for (auto it = st.faults.begin(); it != st.faults.end(); ++it) {
        if (it->op != target || (!it->path.empty() && it->path != path))
            continue;
        out = *it;
        if (it->count > 0 && --it->count == 0)
            st.faults.erase(it);
        return true;
    }
    return false;
}

std::string field(const json::object &o, const char *key)
{
    if (carries_name(key)) {
        std::string name;
        return p::get_name(o, key, name) > 0 ? name : std::string();
    }
    const json::value *v = o.if_contains(key);
    return v && v->is_string() ? std::string(v->as_string()) : std::string();
}

int64_t int_field(const json::object &o, const char *key)
{
    const json::value *v = o.if_contains(key);
    if (v && v->is_int64())
        return v->as_int64();
    if (v && v->is_bool())
        return v->as_bool();
    return 0;
}

std::string account_of(const std::string &path)
{
    size_t end = path.find('/', 1);
    return path.substr(1, end == std::string::npos ? std::string::npos : end - 1);
}

int file_of(const state &st, const json::object &o, std::string &path)
{
    std::string local;
    path = field(o, "path");
    if (int rc = resolve_path(st, path, local); rc != 0)
        return rc;
    return is_regular(local) ? 0 : p::err_noent; // links and directories included
}

state::~state()
{
    for (EVP_PKEY *k : jwt_keys)
        EVP_PKEY_free(k);
}

} // namespace gwsim
