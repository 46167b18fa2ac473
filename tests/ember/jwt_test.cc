// Self-issued JWTs: what the client signs and what the simulator accepts.
#include "ember/ember.h"
#include "ember/protocol.hpp"
#include "gateway_sim.h"
#include "mox/mox.h"
#include "state.h"

#include <boost/json.hpp>
#include <ctime>
#include <gtest/gtest.h>

namespace json = boost::json;
using ember_test::pki_file;

namespace
{

EVP_PKEY *key(const char *pem)
{
    EVP_PKEY *k = nullptr;
    EXPECT_EQ(mox_pkey_from_pem_file(pki_file(pem).c_str(), &k), 0);
    return k;
}

std::string generate(const char *pem, const char *aud, uint32_t mask)
{
    EVP_PKEY *k = key(pem);
    ember_jwt_grant grants[] = {{"/", mask}, {"/acc", 15}};
    ember_jwt_request req = {"tarn:self", "self", "self", "self", aud, grants, 2, k};
    char *jwt = ember_jwt_generate(&req);
    EVP_PKEY_free(k);
    std::string out = jwt ? jwt : "";
    mox_free(jwt);
    return out;
}

json::object part(const std::string &token, int index)
{
    size_t d1 = token.find('.'), d2 = token.rfind('.');
    std::string text = index == 0 ? token.substr(0, d1) : token.substr(d1 + 1, d2 - d1 - 1), raw;
    EXPECT_TRUE(ember_proto::base64url_decode(text, raw));
    return json::parse(raw).as_object();
}

struct SimKeys {
    gwsim::state st;
    SimKeys()
    {
        st.uid = "dc-a";
        st.jwt_keys = {key("site-rsa.pem"), key("web-ec.pem")};
    }
};

TEST(EmberJwt, SignsTextsGrantsAndExpiry)
{
    for (const char *pem : {"site-rsa.pem", "web-ec.pem"}) {
        std::string t = generate(pem, "dc-a", 7);
        json::object h = part(t, 0), c = part(t, 1);
        EXPECT_EQ(h["alg"], pem[0] == 's' ? "RS256" : "ES256");
        EXPECT_EQ(c["iss"], "tarn:self");
        EXPECT_EQ(c["aud"], "dc-a");
        EXPECT_EQ(c["grants"], json::parse(R"([{"path":"/","mask":7},{"path":"/acc","mask":15}])"));
        int64_t now = time(nullptr);
        EXPECT_GT(c["exp"].as_int64(), now);
        EXPECT_LE(c["exp"].as_int64(), now + 600);

        SimKeys sim;
        std::vector<std::pair<std::string, uint32_t>> grants;
        EXPECT_EQ(gwsim::verify_jwt(sim.st, t, grants), 0) << pem;
        ASSERT_EQ(grants.size(), 2u);
        EXPECT_EQ(grants[0], (std::pair<std::string, uint32_t>{"/", 7}));
    }
}

TEST(EmberJwt, SimRefusesForgedAndForeignTokens)
{
    SimKeys sim;
    std::vector<std::pair<std::string, uint32_t>> g;
    std::string good = generate("site-rsa.pem", "self", 11);
    ASSERT_EQ(gwsim::verify_jwt(sim.st, good, g), 0);
    // The payload swapped for one with more rights keeps the old signature.
    std::string richer = generate("site-rsa.pem", "self", 15);
    std::string forged = good.substr(0, good.find('.')) +
                         richer.substr(richer.find('.'), richer.rfind('.') - richer.find('.')) +
                         good.substr(good.rfind('.'));
    EXPECT_EQ(gwsim::verify_jwt(sim.st, forged, g), ember_proto::err_auth);
    EXPECT_EQ(gwsim::verify_jwt(sim.st, generate("site-ec.pem", "self", 11), g),
              ember_proto::err_auth); // an untrusted key
    EXPECT_EQ(gwsim::verify_jwt(sim.st, generate("web-ec.pem", "dc-b", 11), g),
              ember_proto::err_auth); // for another gateway
    EXPECT_EQ(gwsim::verify_jwt(sim.st, "a.b", g), ember_proto::err_auth);
}

TEST(EmberJwt, OnlyRsaAndP256Keys)
{
    struct {
        const char *curve; // null for an Ed25519 key
        bool signs;
    } rows[] = {{"P-256", true},
                {"secp256k1", false}, // 256 bits too, but not what ES256 names
                {"brainpoolP256r1", false},
                {"P-384", false},
                {nullptr, false}};
    for (auto &r : rows) {
        EVP_PKEY *k = r.curve ? EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", r.curve)
                              : EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519");
        ASSERT_NE(k, nullptr) << (r.curve ? r.curve : "ED25519");
        ember_jwt_request req = {"a", "b", "c", "d", "e", nullptr, 0, k};
        char *jwt = ember_jwt_generate(&req);
        EXPECT_EQ(jwt != nullptr, r.signs) << (r.curve ? r.curve : "ED25519");
        mox_free(jwt);
        EVP_PKEY_free(k);
    }
    ember_jwt_request none = {"a", "b", "c", "d", "e", nullptr, 0, nullptr};
    EXPECT_EQ(ember_jwt_generate(&none), nullptr);
}

} // namespace
