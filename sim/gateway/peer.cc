// Requests between gateways: signed with an account's trust secret,
// checked against the same secret by the gateway that serves them.
#include "ember/protocol.hpp"
#include "ops.h"

#include <openssl/crypto.h>
#include <openssl/hmac.h>

namespace json = boost::json;
namespace p = ember_proto;

namespace gwsim
{

peer_fn peer_op(const std::string &target)
{
    static const std::pair<const char *, peer_fn> ops[] = {
        {p::op_peer_replica, op_peer_replica},
        {p::op_peer_pull_list, op_peer_pull_list},
        {p::op_peer_pull_read, op_peer_pull_read},
        {p::op_peer_pull_remove, op_peer_pull_remove},
    };
    for (auto &[path, fn] : ops)
        if (target == path)
            return fn;
    return nullptr;
}

bool peer_authentic(const state &st, const std::string &account, int kind, const std::string &body,
                    const std::string &mac)
{
    auto acc = st.secrets.find(account);
    if (acc == st.secrets.end())
        return false;
    auto secret = acc->second.find(kind);
    if (secret == acc->second.end())
        return false;
    std::string expected = peer_mac(secret->second, body);
    return mac.size() == expected.size() &&
           CRYPTO_memcmp(mac.data(), expected.data(), mac.size()) == 0;
}

int peer_call(state &st, const std::string &addr, const char *target, const json::object &body,
              const std::string &secret, json::object &out)
{
    if (!st.send_peer)
        return p::err_io;
    std::string text = json::serialize(body), answer;
    if (int rc = st.send_peer(addr, target, text, peer_mac(secret, text), answer); rc != 0)
        return rc;
    boost::system::error_code ec;
    json::value v = json::parse(answer, ec);
    if (ec || !v.is_object())
        return p::err_io;
    out = std::move(v.as_object());
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
