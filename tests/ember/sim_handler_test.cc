// The simulator's request handler, driven directly without a network.
#include "ember/protocol.hpp"
#include "gateway_sim.h"
#include "mox/misc.h"
#include "state.h"

#include <boost/json.hpp>
#include <ctime>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace json = boost::json;
namespace p = ember_proto;

namespace
{

class SimHandler : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/ember-handler-XXXXXX";
        st.root = mkdtemp(tmpl);
        st.uid = "dc-a";
        mkdir((st.root + "/acc").c_str(), 0700);
        EVP_PKEY *k = nullptr;
        ASSERT_EQ(mox_pkey_from_pem_file(ember_test::pki_file("site-rsa.pem").c_str(), &k), 0);
        st.jwt_keys.push_back(k);
    }
    void TearDown() override { ASSERT_EQ(system(("rm -rf '" + st.root + "'").c_str()), 0); }
    // Runs a request as a certificate-authenticated client.
    json::object run(const char *op, const std::string &body, unsigned *status = nullptr)
    {
        gwsim::request req{op, body, true, "", ""};
        gwsim::response res = gwsim::handle_request(st, req);
        if (status)
            *status = res.status;
        return json::parse(res.body).as_object();
    }
    // An RS256 token with the given claims, signed with the trusted key.
    std::string token(const json::object &claims)
    {
        std::string in = p::base64url_encode(R"({"alg":"RS256","typ":"JWT"})") + "." +
                         p::base64url_encode(json::serialize(claims));
        EVP_MD_CTX *md = EVP_MD_CTX_new();
        size_t len = 512;
        unsigned char sig[512];
        EVP_DigestSignInit(md, nullptr, EVP_sha256(), nullptr, st.jwt_keys[0]);
        EVP_DigestSign(md, sig, &len, reinterpret_cast<const unsigned char *>(in.data()),
                       in.size());
        EVP_MD_CTX_free(md);
        return in + "." + p::base64url_encode(std::string(reinterpret_cast<char *>(sig), len));
    }
    gwsim::state st;
};

TEST_F(SimHandler, StatusesFollowErrorCodes)
{
    unsigned status = 0;
    EXPECT_EQ(run(p::op_secret_get, "not json", &status)["error"], p::err_malformed);
    EXPECT_EQ(status, 400u);
    EXPECT_EQ(run("/v1/nothing", "{}", &status)["error"], p::err_inval);
    EXPECT_EQ(status, 404u);
    EXPECT_EQ(run(p::op_secret_get, R"({"account":"acc","kind":1})", &status)["error"],
              p::err_noent);
    EXPECT_EQ(status, 404u);
    EXPECT_EQ(run(p::op_secret_set, R"({"account":"acc","kind":9,"secret":"x"})")["error"],
              p::err_inval);
    for (int code = 0; code < 100; code++) {
        if (code == p::err_malformed || code == p::err_notdir)
            continue; // they share their status with err_inval and err_noent
        EXPECT_EQ(p::err_for_status(p::status_for_err(code)),
                  p::status_for_err(code) == 500 ? p::err_io : code);
    }
}

TEST_F(SimHandler, TokensAreCheckedForExpiryAndGrants)
{
    int64_t now = time(nullptr);
    auto with = [&](int64_t exp, const char *path, int mask) {
        json::object claims{{"aud", "self"}, {"exp", exp}};
        claims["grants"] = json::array{json::object{{"path", path}, {"mask", mask}}};
        gwsim::request req{p::op_secret_set, R"({"account":"acc","kind":1,"secret":"s"})", false,
                           token(claims), ""};
        return json::parse(gwsim::handle_request(st, req).body).at("error").as_int64();
    };
    EXPECT_EQ(with(now + 60, "/", 7), 0);
    EXPECT_EQ(with(now - 1, "/", 7), p::err_auth);
    EXPECT_EQ(with(now + 60, "/acc", 7), 0);
    EXPECT_EQ(with(now + 60, "/ac", 7), p::err_perm); // a prefix that is not a parent
    EXPECT_EQ(with(now + 60, "/other", 7), p::err_perm);
    EXPECT_EQ(with(now + 60, "/", 6), p::err_perm); // no session bit
}

TEST_F(SimHandler, PeerRequestsNeedTheSharedSecret)
{
    std::string body = R"({"account":"acc","action":"create","path":"/acc/f","master_uid":"dc-b",)"
                       R"("master_addr":"h:1","content":")" +
                       p::base64url_encode("hello") + "\"}";
    gwsim::request req{p::op_peer_replica, body, false, "", gwsim::peer_mac("s", body)};
    EXPECT_EQ(json::parse(gwsim::handle_request(st, req).body).at("error"), p::err_auth);
    st.secrets["acc"][1] = "t";
    EXPECT_EQ(json::parse(gwsim::handle_request(st, req).body).at("error"), p::err_auth);
    st.secrets["acc"][1] = "s";
    EXPECT_EQ(json::parse(gwsim::handle_request(st, req).body).at("error"), 0);
    EXPECT_TRUE(st.replicas["/acc/f"].enabled);
    EXPECT_FALSE(st.replicas["/acc/f"].is_master);
    EXPECT_EQ(st.replicas["/acc/f"].peer_uid, "dc-b");
}

TEST_F(SimHandler, EnableTellsThePeerAndKeepsStateOnFailure)
{
    std::ofstream(st.root + "/acc/f") << "x";
    st.secrets["acc"][1] = "s";
    std::string sent_to;
    int peer_rc = p::err_io;
    st.send_peer = [&](const std::string &addr, const char *, const std::string &body,
                       const std::string &mac, std::string &answer) {
        sent_to = addr;
        EXPECT_EQ(mac, gwsim::peer_mac("s", body));
        answer = R"({"error":0})";
        return peer_rc;
    };
    const char *req = R"({"path":"/acc/f","slave_addr":"h:2","slave_uid":"dc-b"})";
    EXPECT_EQ(run(p::op_repl_enable, req)["error"], p::err_io);
    EXPECT_FALSE(st.replicas["/acc/f"].enabled);
    peer_rc = 0;
    EXPECT_EQ(run(p::op_repl_enable, req)["error"], 0);
    EXPECT_EQ(sent_to, "h:2");
    EXPECT_TRUE(st.replicas["/acc/f"].is_master);
    // An unreachable slave stops disable unless forced.
    peer_rc = p::err_io;
    EXPECT_EQ(run(p::op_repl_disable, R"({"path":"/acc/f","force":false})")["error"], p::err_io);
    EXPECT_EQ(run(p::op_repl_disable, R"({"path":"/acc/f","force":true})")["error"], 0);
    EXPECT_FALSE(st.replicas["/acc/f"].enabled);
}

TEST_F(SimHandler, FaultsMatchOperationAndPath)
{
    EXPECT_EQ(run(p::op_test_fault, R"({"op":"/v1/dir/stat","path":"/acc","error":80})")["error"],
              0);
    EXPECT_EQ(run(p::op_dir_stat, R"({"path":"/acc"})")["error"], p::err_io);
    EXPECT_EQ(run(p::op_dir_stat, R"({"path":"/"})")["error"], 0);
    EXPECT_EQ(run(p::op_test_fault, R"({"op":"/v1/dir/stat"})")["error"], p::err_inval);
    EXPECT_EQ(run(p::op_test_fault, R"({"clear":true})")["error"], 0);
    EXPECT_EQ(run(p::op_test_fault, R"({"op":"/v1/dir/stat","error":9,"count":1})")["error"], 0);
    EXPECT_EQ(run(p::op_dir_stat, R"({"path":"/acc"})")["error"], p::err_notdir);
    EXPECT_EQ(run(p::op_dir_stat, R"({"path":"/acc"})")["error"], 0);
}

} // namespace
