// The gateway operations: one JSON request and answer each.
#include "client_impl.h"
#include "ember/protocol.hpp"
#include "ember_call.h"
#include "mox/alloc.h"
#include "mox/errors.h"

namespace json = boost::json;

namespace ember
{

int call_value(ember_client *c, const char *op, const json::object &req, json::value &answer)
{
    unsigned status = 0;
    std::string body;
    int rc = transport_request(c, op, json::serialize(req), status, body);
    if (rc != 0)
        return rc;
    boost::system::error_code ec;
    json::value v = json::parse(body, ec, answer.storage());
    const json::object *obj = (!ec && v.is_object()) ? &v.get_object() : nullptr;
    int code = ember_proto::err_for_status(status);
    if (obj && obj->contains("error") && obj->at("error").is_int64())
        code = static_cast<int>(obj->at("error").get_int64());
    if (code != 0)
        return -code;
    if (status != 200 || !obj)
        return -MOX_EPROTO;
    answer = std::move(v); // the same storage: no copy
    return 0;
}

int call(ember_client *c, const char *op, const json::object &req, json::object *answer)
{
    json::value v;
    int rc = call_value(c, op, req, v);
    if (rc == 0 && answer)
        *answer = std::move(v.get_object());
    return rc;
}

int call_text(ember_client *c, const char *op, const json::object &req, const char *field,
              char **out)
{
    json::object answer;
    *out = nullptr;
    int rc = call(c, op, req, &answer);
    if (rc != 0)
        return rc;
    const json::value *v = answer.if_contains(field);
    if (!v || !v->is_string())
        return -MOX_EPROTO;
    *out = mox_strdup(v->as_string().c_str());
    return 0;
}

} // namespace ember

namespace
{

json::string text(const char *s)
{
    return json::string(s ? s : "");
}

// `rest` with the name or path `bytes` under `key` (or `key`_b64).
json::object named(const char *key, const char *bytes, json::object rest = {})
{
    ember_proto::put_name(rest, key, bytes ? bytes : "");
    return rest;
}

} // namespace

using ember::call;

extern "C" {

int ember_get_trust_secret(ember_client *client, const char *account, int kind, char **secret)
{
    return ember::call_text(client, ember_proto::op_secret_get,
                            named("account", account, {{"kind", kind}}), "secret", secret);
}

int ember_set_trust_secret(ember_client *client, const char *account, int kind, const char *secret)
{
    return call(client, ember_proto::op_secret_set,
                named("account", account, {{"kind", kind}, {"secret", text(secret)}}), nullptr);
}

int ember_account_pull_configure_dst(ember_client *client, const char *new_name,
                                     const char *src_dc_uid, const char *src,
                                     const char *src_account, const char *secret, int flags)
{
    return call(client, ember_proto::op_pull_configure,
                named("account", new_name,
                      named("src_account", src_account,
                            {{"src_dc_uid", text(src_dc_uid)},
                             {"src", text(src)},
                             {"secret", text(secret)},
                             {"flags", flags}})),
                nullptr);
}

int ember_account_pull_set_ondemand_only(ember_client *client, const char *account, int value)
{
    return call(client, ember_proto::op_pull_ondemand,
                named("account", account, {{"value", value}}), nullptr);
}

int ember_file_enable_replication(ember_client *client, const char *path, const char *slave_addr,
                                  const char *slave_uid)
{
    return call(
        client, ember_proto::op_repl_enable,
        named("path", path, {{"slave_addr", text(slave_addr)}, {"slave_uid", text(slave_uid)}}),
        nullptr);
}

int ember_file_disable_replication(ember_client *client, const char *path, int force)
{
    return call(client, ember_proto::op_repl_disable, named("path", path, {{"force", force != 0}}),
                nullptr);
}

int ember_file_detach_replica_from_master(ember_client *client, const char *path, int flags)
{
    return call(client, ember_proto::op_repl_detach, named("path", path, {{"flags", flags}}),
                nullptr);
}

int ember_file_switch_to_slave_replica(ember_client *client, const char *path)
{
    return call(client, ember_proto::op_repl_switch, named("path", path), nullptr);
}

int ember_file_join_to_slave_replica(ember_client *client, const char *path, const char *slave_uid)
{
    return call(client, ember_proto::op_repl_join,
                named("path", path, {{"slave_uid", text(slave_uid)}}), nullptr);
}

int ember_file_get_state(ember_client *client, const char *path, char **state)
{
    return ember::call_text(client, ember_proto::op_file_state, named("path", path), "state",
                            state);
}

int ember_file_open(ember_client *client, ember_file **file, const char *path, int flags)
{
    json::object answer;
    *file = nullptr;
    int rc =
        call(client, ember_proto::op_file_open, named("path", path, {{"flags", flags}}), &answer);
    if (rc != 0)
        return rc;
    const json::value *h = answer.if_contains("handle");
    if (!h || !h->is_string())
        return -MOX_EPROTO;
    *file = new ember_file{ember_client_get(client), std::string(h->as_string())};
    return 0;
}

int ember_file_close(ember_file *file)
{
    int rc = call(file->client, ember_proto::op_file_close, {{"handle", file->handle}}, nullptr);
    ember_client_put(file->client);
    delete file;
    return rc;
}

} // extern "C"
