// Self-issued JWTs: compact JWS, RS256 or ES256 by the key's type.
#include "ember/ember.h"
#include "ember/protocol.hpp"
#include "mox/alloc.h"
#include "mox/misc.h"

#include <boost/json.hpp>
#include <openssl/ecdsa.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <string>

namespace
{

const int64_t jwt_lifetime_s = 300;

bool sign(EVP_PKEY *key, const std::string &input, std::string &sig)
{
    EVP_MD_CTX *md = EVP_MD_CTX_new();
    size_t len = 0;
    bool ok =
        md && EVP_DigestSignInit(md, nullptr, EVP_sha256(), nullptr, key) == 1 &&
        EVP_DigestSign(md, nullptr, &len, reinterpret_cast<const unsigned char *>(input.data()),
                       input.size()) == 1;
    if (ok) {
        sig.resize(len);
        ok = EVP_DigestSign(md, reinterpret_cast<unsigned char *>(sig.data()), &len,
                            reinterpret_cast<const unsigned char *>(input.data()),
                            input.size()) == 1;
        sig.resize(len);
    }
    EVP_MD_CTX_free(md);
    return ok;
}

// ES256 carries r and s as two 32-byte big-endian numbers, not DER.
bool der_to_raw(std::string &sig)
{
    const auto *p = reinterpret_cast<const unsigned char *>(sig.data());
    ECDSA_SIG *es = d2i_ECDSA_SIG(nullptr, &p, static_cast<long>(sig.size()));
    if (!es)
        return false;
    unsigned char raw[64];
    bool ok = BN_bn2binpad(ECDSA_SIG_get0_r(es), raw, 32) == 32 &&
              BN_bn2binpad(ECDSA_SIG_get0_s(es), raw + 32, 32) == 32;
    ECDSA_SIG_free(es);
    if (ok)
        sig.assign(reinterpret_cast<char *>(raw), 64);
    return ok;
}

// ES256 names P-256 alone; other 256-bit curves (secp256k1, brainpool)
// would sign under a label that verifiers read as P-256.
bool on_p256(EVP_PKEY *key)
{
    char name[64];
    size_t len = 0;
    return EVP_PKEY_get_group_name(key, name, sizeof name, &len) == 1 &&
           OBJ_sn2nid(name) == NID_X9_62_prime256v1;
}

boost::json::object claims(const ember_jwt_request *req)
{
    auto text = [](const char *s) { return boost::json::string(s ? s : ""); };
    boost::json::array grants;
    for (size_t i = 0; i < req->n_grants; i++) {
        boost::json::object g{{"mask", req->grants[i].mask}};
        const char *path = req->grants[i].path;
        ember_proto::put_name(g, "path", path ? path : "");
        grants.push_back(std::move(g));
    }
    int64_t now = get_real_time_ms() / 1000;
    boost::json::object out{{"iss", text(req->issuer)},   {"sub", text(req->subject)},
                            {"tnt", text(req->tenant)},   {"aud", text(req->audience)},
                            {"grants", grants},           {"iat", now},
                            {"exp", now + jwt_lifetime_s}};
    ember_proto::put_name(out, "acc", req->account ? req->account : "");
    return out;
}

} // namespace

extern "C" char *ember_jwt_generate(const ember_jwt_request *req)
{
    if (!req || !req->key)
        return nullptr;
    int type = EVP_PKEY_get_base_id(req->key);
    const char *alg = type == EVP_PKEY_RSA ? "RS256" : type == EVP_PKEY_EC ? "ES256" : nullptr;
    if (!alg || (type == EVP_PKEY_EC && !on_p256(req->key)))
        return nullptr;
    std::string header = boost::json::serialize(boost::json::object{{"alg", alg}, {"typ", "JWT"}});
    std::string input = ember_proto::base64url_encode(header) + "." +
                        ember_proto::base64url_encode(boost::json::serialize(claims(req)));
    std::string sig;
    if (!sign(req->key, input, sig) || (type == EVP_PKEY_EC && !der_to_raw(sig)))
        return nullptr;
    input.append(".").append(ember_proto::base64url_encode(sig));
    return mox_strdup(input.c_str());
}
