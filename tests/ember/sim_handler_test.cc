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
#include <unistd.h>

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
    std::string token(const json::object &claims,
                      const std::string &header = R"({"alg":"RS256","typ":"JWT"})")
    {
        std::string in =
            p::base64url_encode(header) + "." + p::base64url_encode(json::serialize(claims));
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
    struct {
        int64_t expires_in;
        const char *grant;
        int error;
    } rows[] = {
        {60, R"({"path":"/","mask":7})", 0},
        {-1, R"({"path":"/","mask":7})", p::err_auth},
        {60, R"({"path":"/acc","mask":7})", 0},
        {60, R"({"path":"/ac","mask":7})", p::err_perm}, // a prefix that is not a parent
        {60, R"({"path":"/","mask":6})", p::err_perm},   // no session bit
        // Malformed grants spoil the whole token.
        {60, R"({"mask":7})", p::err_auth},
        {60, R"({"path":"","mask":7})", p::err_auth},
        {60, R"({"path":7,"mask":7})", p::err_auth},
        {60, R"({"path":"acc","mask":7})", p::err_auth},
        {60, R"({"path":"/acc"})", p::err_auth},
        {60, R"({"path":"/acc","mask":-1})", p::err_auth},
        {60, R"({"path":"/acc","mask":4294967303})", p::err_auth}, // 2^32 + 7
        {60, R"({"path":"/acc","mask":7.0})", p::err_auth},
        {60, R"("/")", p::err_auth},
    };
    for (auto &r : rows) {
        json::object claims{{"aud", "self"}, {"exp", time(nullptr) + r.expires_in}};
        claims["grants"] = json::array{json::parse(r.grant)};
        gwsim::request req{p::op_secret_set, R"({"account":"acc","kind":1,"secret":"s"})", false,
                           token(claims), ""};
        EXPECT_EQ(json::parse(gwsim::handle_request(st, req).body).at("error"), r.error) << r.grant;
    }
}

// Conditions the gateway cannot honour refuse the token.
TEST_F(SimHandler, TokensWithConditions)
{
    json::object claims{{"aud", "self"}, {"exp", time(nullptr) + 60}};
    claims["grants"] = json::array{json::object{{"path", "/"}, {"mask", 7}}};
    auto with_nbf = [&](json::value nbf) {
        json::object c = claims;
        c["nbf"] = nbf;
        return token(c);
    };
    std::pair<std::string, int> rows[] = {
        {with_nbf(time(nullptr) - 60), 0},
        {with_nbf(time(nullptr) + 60), p::err_auth}, // not valid yet
        {with_nbf("0"), p::err_auth},
        {token(claims, R"({"alg":"RS256","typ":"JWT","crit":[]})"), p::err_auth},
    };
    for (auto &[bearer, error] : rows) {
        gwsim::request req{p::op_dir_stat, R"({"path":"/acc"})", false, bearer, ""};
        EXPECT_EQ(json::parse(gwsim::handle_request(st, req).body).at("error"), error) << bearer;
    }
}

TEST_F(SimHandler, MalformedRequestsChangeNothing)
{
    std::pair<const char *, const char *> rows[] = {
        {p::op_secret_set, R"({"account":"acc","kind":1})"},
        {p::op_secret_set, R"({"account":"acc","kind":1,"secret":7})"},
        {p::op_secret_get, R"({"account":"..","kind":1})"},
        {p::op_pull_configure, R"({"account":"..","src":"h:1","secret":"s","flags":4})"},
        {p::op_pull_configure, R"({"account":".","src":"h:1","secret":"s","flags":4})"},
        {p::op_pull_configure, R"({"account":"n","src":"h:1","src_account":"..","secret":"s"})"},
        {p::op_pull_ondemand, R"({"account":".","value":1})"},
        {p::op_peer_pull_list, R"({"account":".."})"},
        {p::op_test_fault, R"({"op":"/v1/test/fault","error":80})"}, // could never be cleared
        {p::op_test_fault, R"({"op":"/v1/dir/stat","delay_ms":-1})"},
        {p::op_test_fault, R"({"op":"/v1/dir/stat","delay_ms":600001})"},
        {p::op_test_fault, R"({"op":"/v1/dir/stat","error":9,"count":4294967297})"},
    };
    st.secrets["acc"][1] = "s";
    for (auto &[op, body] : rows)
        EXPECT_EQ(run(op, body)["error"], p::err_inval) << op << " " << body;
    EXPECT_EQ(st.secrets["acc"][1], "s");
    EXPECT_TRUE(st.pulls.empty() && st.ondemand.empty() && st.faults.empty());
}

// Abandoned listings make room for new ones oldest first.
TEST_F(SimHandler, OldestListingIsDropped)
{
    std::ofstream(st.root + "/acc/a") << "x";
    std::ofstream(st.root + "/acc/b") << "x";
    st.next_id = 9; // "10" sorts before "9" as text
    for (int i = 0; i < 65; i++)
        ASSERT_EQ(run(p::op_dir_list, R"({"path":"/acc","limit":1})")["error"], 0);
    std::pair<const char *, int> rows[] = {{"9", p::err_noent}, {"10", 0}};
    for (auto &[id, error] : rows)
        EXPECT_EQ(run(p::op_dir_list, std::string(R"({"path":"/acc","offset":1,"listing":")") + id +
                                          "\"}")["error"],
                  error)
            << id;
}

// Symbolic links are entries of their own, never a way out of an account.
TEST_F(SimHandler, LinksDoNotLeadOutOfTheTree)
{
    for (const char *d : {"/acc/d", "/other"})
        mkdir((st.root + d).c_str(), 0700);
    for (const char *f : {"/acc/d/g", "/other/secret"})
        std::ofstream(st.root + f) << "x";
    ASSERT_EQ(symlink("../other", (st.root + "/acc/up").c_str()), 0);
    ASSERT_EQ(symlink((st.root + "/other").c_str(), (st.root + "/acc/abs").c_str()), 0);
    ASSERT_EQ(symlink("d/g", (st.root + "/acc/lf").c_str()), 0);
    json::object claims{{"aud", "self"}, {"exp", time(nullptr) + 60}};
    claims["grants"] = json::array{json::object{{"path", "/acc"}, {"mask", 7}}};
    std::string bearer = token(claims);
    struct {
        const char *op, *body;
        int error;
    } rows[] = {
        {p::op_dir_list, R"({"path":"/acc/d"})", 0},
        {p::op_dir_list, R"({"path":"/acc/abs"})", p::err_notdir},
        {p::op_dir_stat, R"({"path":"/acc/up/secret"})", p::err_noent},
        {p::op_file_state, R"({"path":"/acc/lf"})", p::err_noent},
        {p::op_file_open, R"({"path":"/acc/abs/secret"})", p::err_noent},
        {p::op_repl_enable, R"({"path":"/acc/up/secret","slave_addr":"h:1","slave_uid":"b"})",
         p::err_noent},
        {p::op_dir_stat, R"({"path_b64":"L2FjYw"})", p::err_inval}, // "/acc" goes as text
    };
    for (auto &r : rows) {
        gwsim::request req{r.op, r.body, false, bearer, ""};
        EXPECT_EQ(json::parse(gwsim::handle_request(st, req).body).at("error"), r.error)
            << r.op << " " << r.body;
    }
    st.secrets["acc"][1] = "s";
    std::string body = R"({"account":"acc","action":"create","path":"/acc/up/x","content":"eA"})";
    gwsim::request peer{p::op_peer_replica, body, false, "", gwsim::peer_mac("s", body)};
    EXPECT_EQ(json::parse(gwsim::handle_request(st, peer).body).at("error"), p::err_noent);
    EXPECT_FALSE(std::ifstream(st.root + "/other/x").good());
}

TEST_F(SimHandler, ListingPageSize)
{
    for (const char *f : {"/acc/a", "/acc/b", "/acc/c"})
        std::ofstream(st.root + f) << "x";
    struct {
        const char *limit;
        int error;
        size_t entries;
    } rows[] = {{"", 0, 3},
                {R"(,"limit":0)", 0, 3},
                {R"(,"limit":2)", 0, 2},
                {R"(,"limit":5000)", 0, 3},
                {R"(,"limit":-1)", p::err_inval, 0},
                {R"(,"limit":"2")", p::err_inval, 0},
                {R"(,"limit":1.5)", p::err_inval, 0}};
    for (auto &r : rows) {
        json::object a = run(p::op_dir_list, std::string(R"({"path":"/acc")") + r.limit + "}");
        EXPECT_EQ(a["error"], r.error) << r.limit;
        size_t entries = a.contains("entries") ? a["entries"].as_array().size() : 0;
        EXPECT_EQ(entries, r.entries) << r.limit;
    }
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
