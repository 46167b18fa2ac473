// Verification of the bearer JWTs that clients sign with their own keys.
#include "ember/protocol.hpp"
#include "ops.h"

#include <ctime>
#include <openssl/ecdsa.h>

namespace json = boost::json;
namespace p = ember_proto;

namespace gwsim
{
namespace
{

// ES256 signatures are r and s, 32 bytes each; OpenSSL wants DER.
bool raw_to_der(const std::string &raw, std::string &der)
{
    if (raw.size() != 64)
        return false;
    const auto *b = reinterpret_cast<const unsigned char *>(raw.data());
    ECDSA_SIG *sig = ECDSA_SIG_new();
    BIGNUM *r = BN_bin2bn(b, 32, nullptr), *s = BN_bin2bn(b + 32, 32, nullptr);
    if (!sig || !r || !s || ECDSA_SIG_set0(sig, r, s) != 1) {
        BN_free(r);
        BN_free(s);
        ECDSA_SIG_free(sig);
        return false;
    }
    unsigned char *out = nullptr;
    int len = i2d_ECDSA_SIG(sig, &out);
    ECDSA_SIG_free(sig);
    if (len <= 0)
        return false;
    der.assign(reinterpret_cast<char *>(out), static_cast<size_t>(len));
    OPENSSL_free(out);
    return true;
}

bool verify_with(EVP_PKEY *key, const std::string &input, const std::string &sig)
{
    EVP_MD_CTX *md = EVP_MD_CTX_new();
    bool ok =
        md && EVP_DigestVerifyInit(md, nullptr, EVP_sha256(), nullptr, key) == 1 &&
        EVP_DigestVerify(md, reinterpret_cast<const unsigned char *>(sig.data()), sig.size(),
                         reinterpret_cast<const unsigned char *>(input.data()), input.size()) == 1;
    EVP_MD_CTX_free(md);
    return ok;
}

bool signed_by_trusted(const state &st, const std::string &alg, const std::string &input,
                       std::string sig)
{
    int type = alg == "RS256" ? EVP_PKEY_RSA : alg == "ES256" ? EVP_PKEY_EC : 0;
    if (!type || (type == EVP_PKEY_EC && !raw_to_der(std::string(sig), sig)))
        return false;
    for (EVP_PKEY *key : st.jwt_keys)
        if (EVP_PKEY_get_base_id(key) == type && verify_with(key, input, sig))
            return true;
    return false;
}

// {"path" (or "path_b64"): a well-formed path, "mask": 0 to 2^32-1}.
bool read_grant(const json::value &g, std::pair<std::string, uint32_t> &out)
{
    const json::object *o = g.if_object();
    if (!o || p::get_name(*o, "path", out.first) != 1 || !path_syntax_ok(out.first))
        return false;
    const json::value *mask = o->if_contains("mask");
    if (!mask || !mask->is_int64() || mask->as_int64() < 0 || mask->as_int64() > UINT32_MAX)
        return false;
    out.second = static_cast<uint32_t>(mask->as_int64());
    return true;
}

} // namespace

int verify_jwt(const state &st, const std::string &token,
               std::vector<std::pair<std::string, uint32_t>> &grants)
{
    size_t d1 = token.find('.'), d2 = token.rfind('.');
    std::string header, payload, sig;
    if (d1 == std::string::npos || d1 == d2 || !p::base64url_decode(token.substr(0, d1), header) ||
        !p::base64url_decode(token.substr(d1 + 1, d2 - d1 - 1), payload) ||
        !p::base64url_decode(token.substr(d2 + 1), sig))
        return p::err_auth;
    boost::system::error_code ec1, ec2;
    json::value h = json::parse(header, ec1), c = json::parse(payload, ec2);
    if (ec1 || ec2 || !h.is_object() || !c.is_object())
        return p::err_auth;
    // No extension is understood, so one marked critical cannot be honoured.
    if (h.as_object().contains("crit") ||
        !signed_by_trusted(st, field(h.as_object(), "alg"), token.substr(0, d2), sig))
        return p::err_auth;
    const json::object &claims = c.as_object();
    std::string aud = field(claims, "aud");
    const json::value *nbf = claims.if_contains("nbf");
    if (int_field(claims, "exp") <= time(nullptr) || (aud != "self" && aud != st.uid) ||
        (nbf && (!nbf->is_int64() || nbf->as_int64() > time(nullptr))))
        return p::err_auth;
    const json::value *list = claims.if_contains("grants");
    if (!list || !list->is_array())
        return p::err_auth;
    // One malformed grant spoils the token: read leniently, it could cover
    // more than its issuer meant.
    for (const json::value &g : list->as_array()) {
        std::pair<std::string, uint32_t> grant;
        if (!read_grant(g, grant))
            return p::err_auth;
        grants.push_back(std::move(grant));
    }
    return 0;
}

} // namespace gwsim
