// The client library against real simulator processes.
#include "co_runner.h"
#include "ember/ember.h"
#include "ember/protocol.hpp"
#include "gateway_sim.h"
#include "mox/mox.h"

#include <boost/json.hpp>
#include <cerrno>
#include <fstream>
#include <gtest/gtest.h>

namespace json = boost::json;

using ember_test::cert_client;
using ember_test::jwt_client;
using ember_test::Sim;
using tarn_test::run_in_coroutine;

namespace
{

std::string take(char *s)
{
    std::string out = s ? s : "(null)";
    mox_free(s);
    return out;
}

TEST(EmberAddress, AcceptsNamesAddressesAndPorts)
{
    struct {
        const char *addr;
        int rc;
    } cases[] = {
        {"127.0.0.1", 0},     {"127.0.0.1:1", 0},  {"gw-1.example", 0}, {"[::1]", 0},
        {"[::1]:8443", 0},    {"", -30},           {":80", -30},        {"host:", -30},
        {"host:0", -30},      {"host:65536", -30}, {"host:8x", -30},    {"::1", -30},
        {"[::1", -30},        {"[::1]x", -30},     {"[]:1", -30},       {"a b", -30},
        {"[127.0.0.1]", -30}, {"host:1:2", -30},
    };
    ember_client *c = ember_client_alloc();
    for (auto &tc : cases)
        EXPECT_EQ(ember_client_set_host(c, tc.addr), tc.rc) << tc.addr;
    ember_client_put(c);
}

// Names go as text exactly when the gateway's JSON parser takes them.
TEST(EmberNames, Utf8CheckAgreesWithTheParser)
{
    const char *names[] = {
        "plain",    "caf\xc3\xa9",  "\xf0\x9f\x98\x80", "\xef\xbf\xbf",    "",
        "\xff",     "\xc3\x28",     "\xc0\x80",         "\xed\xa0\x80",    "\xf4\x90\x80\x80",
        "\xe2\x82", "\xe0\x80\x80", "\xf0\x80\x80\x80", "\xf5\x80\x80\x80"};
    for (std::string name : names) {
        boost::system::error_code ec;
        json::parse("\"" + name + "\"", ec);
        EXPECT_EQ(ember_proto::utf8_valid(name), !ec) << testing::PrintToString(name);
    }
}

TEST(EmberClient, CredentialsAndReferences)
{
    ember_client *web = cert_client("127.0.0.1", "web-ec.pem");
    ember_client *site = cert_client("127.0.0.1", "site-ec.pem");
    EXPECT_TRUE(ember_client_is_web(web));
    EXPECT_FALSE(ember_client_is_web(site));
    EXPECT_FALSE(ember_client_is_jwt(site));
    EXPECT_EQ(ember_client_load_auth_from_pem_file(site, "/nonexistent"), -MOX_ENOENT);
    EXPECT_EQ(ember_client_load_auth_from_pem_file(site, ember_test::pki_file("ca.pem").c_str()),
              -MOX_EMALFORMED); // a certificate without its key
    EXPECT_EQ(ember_client_set_jwt(site, "not-a-token"), -MOX_EINVAL);
    EXPECT_EQ(ember_client_set_allowed_protos(site, 4), -MOX_EINVAL);
    EXPECT_EQ(ember_client_get(web), web);
    ember_client_put(web);
    ember_client_put(web);
    ember_client_put(site);
    ember_client *jwt = jwt_client("127.0.0.1", "site-rsa.pem", 11);
    EXPECT_TRUE(ember_client_is_jwt(jwt));
    ember_client_put(jwt);
}

TEST(EmberClient, TrustSecretsPullAndOndemand)
{
    Sim sim;
    sim.mkdir("/acc");
    run_in_coroutine([&] {
        ember_client *c = cert_client(sim.addr(), "site-ec.pem");
        EXPECT_EQ(ember_client_set_ident(c, "TARN migration tool", 0, 0, 1), 0);
        EXPECT_EQ(ember_client_set_allowed_protos(c, 2), 0); // TLS 1.3 only
        char *s = nullptr;
        EXPECT_EQ(ember_get_trust_secret(c, "acc", 1, &s), -MOX_ENOENT);
        EXPECT_EQ(s, nullptr);
        EXPECT_EQ(ember_set_trust_secret(c, "acc", 1, "one"), 0);
        EXPECT_EQ(ember_set_trust_secret(c, "acc", 2, "two"), 0);
        EXPECT_EQ(ember_get_trust_secret(c, "acc", 1, &s), 0);
        EXPECT_EQ(take(s), "one");
        EXPECT_EQ(ember_set_trust_secret(c, "acc", 1, ""), 0);
        EXPECT_EQ(ember_get_trust_secret(c, "acc", 1, &s), -MOX_ENOENT);
        EXPECT_EQ(ember_get_trust_secret(c, "acc", 2, &s), 0);
        EXPECT_EQ(take(s), "two");
        EXPECT_EQ(ember_set_trust_secret(c, "nobody", 1, "x"), -MOX_ENOENT);
        EXPECT_EQ(ember_account_pull_configure_dst(c, "new", "dc-b", "10.0.0.1", "acc", "sec", 5),
                  0);
        EXPECT_EQ(ember_account_pull_set_ondemand_only(c, "acc", 1), 0);
        EXPECT_EQ(ember_account_pull_set_ondemand_only(c, "nobody", 1), -MOX_ENOENT);
        ember_client_put(c);
    });
    std::string dump = sim.dump();
    EXPECT_NE(dump.find("\"new\":{\"flags\":\"5\",\"secret\":\"sec\",\"src\":\"10.0.0.1\","
                        "\"src_account\":\"acc\",\"src_dc_uid\":\"dc-b\",\"status\":\"pending\"}"),
              std::string::npos)
        << dump;
    EXPECT_NE(dump.find("\"ondemand\":{\"acc\":1}"), std::string::npos) << dump;
}

TEST(EmberClient, FileStateOpenAndNotFound)
{
    Sim sim;
    sim.mkdir("/acc/d");
    sim.write("/acc/f");
    run_in_coroutine([&] {
        ember_client *c = cert_client(sim.addr(), "site-rsa.pem");
        EXPECT_EQ(ember_client_set_allowed_protos(c, 1), 0); // TLS 1.2 only
        char *state = nullptr;
        EXPECT_EQ(ember_file_get_state(c, "/acc/f", &state), 0);
        mox_config *cfg = mox_read_config_mem(state);
        ASSERT_NE(cfg, nullptr) << state;
        int32_t enabled = 7;
        const char *peer = nullptr;
        EXPECT_EQ(mox_config_getint(cfg, "replica.enabled", &enabled, 4), 0);
        EXPECT_EQ(enabled, 0);
        EXPECT_EQ(mox_config_getstr(cfg, "replica.peer_uid", &peer), 0);
        mox_free_config(cfg);
        mox_free(state);
        EXPECT_EQ(ember_file_get_state(c, "/acc/missing", &state), -MOX_ENOENT);
        EXPECT_EQ(ember_file_get_state(c, "/acc/d", &state), -MOX_ENOENT);
        EXPECT_EQ(ember_file_get_state(c, "/acc/../etc", &state), -MOX_EINVAL);
        ember_file *f = nullptr;
        EXPECT_EQ(ember_file_open(c, &f, "/acc/missing", 0), -MOX_ENOENT);
        ASSERT_EQ(ember_file_open(c, &f, "/acc/f", 0), 0);
        EXPECT_EQ(ember_file_close(f), 0);
        ember_client_put(c);
    });
}

TEST(EmberClient, ReplicationBetweenTwoSims)
{
    Sim master("dc-a"), slave("dc-b");
    master.mkdir("/acc/sub");
    master.write("/acc/sub/f", "payload");
    slave.mkdir("/acc");
    run_in_coroutine([&] {
        ember_client *m = jwt_client(master.addr(), "site-rsa.pem", 7, "dc-a");
        ember_client *s = jwt_client(slave.addr(), "web-ec.pem", 7, "dc-b");
        std::string slave_addr = slave.addr();
        const char *sa = slave_addr.c_str();
        // Without a shared secret the slave refuses the master.
        EXPECT_EQ(ember_file_enable_replication(m, "/acc/sub/f", sa, "dc-b"), -MOX_EPERM);
        EXPECT_EQ(ember_set_trust_secret(m, "acc", 1, "shared"), 0);
        EXPECT_EQ(ember_set_trust_secret(s, "acc", 1, "other"), 0);
        EXPECT_EQ(ember_file_enable_replication(m, "/acc/sub/f", sa, "dc-b"), -MOX_EAUTH);
        EXPECT_EQ(ember_set_trust_secret(s, "acc", 1, "shared"), 0);
        EXPECT_EQ(ember_file_enable_replication(m, "/acc/sub/f", sa, "dc-b"), 0);
        char *st = nullptr;
        EXPECT_EQ(ember_file_get_state(m, "/acc/sub/f", &st), 0);
        EXPECT_EQ(take(st),
                  "replica.enabled = 1\nreplica.is_master = 1\nreplica.peer_uid = dc-b\n");
        EXPECT_EQ(ember_file_get_state(s, "/acc/sub/f", &st), 0);
        EXPECT_EQ(take(st),
                  "replica.enabled = 1\nreplica.is_master = 0\nreplica.peer_uid = dc-a\n");
        // Roles swap, and the new master can hand them back.
        EXPECT_EQ(ember_file_switch_to_slave_replica(m, "/acc/sub/f"), 0);
        EXPECT_EQ(ember_file_get_state(s, "/acc/sub/f", &st), 0);
        EXPECT_EQ(take(st),
                  "replica.enabled = 1\nreplica.is_master = 1\nreplica.peer_uid = dc-a\n");
        EXPECT_EQ(ember_file_switch_to_slave_replica(m, "/acc/sub/f"), -MOX_EINVAL);
        EXPECT_EQ(ember_file_switch_to_slave_replica(s, "/acc/sub/f"), 0);
        // Detach on the slave, join it again, then disable from the master.
        EXPECT_EQ(ember_file_detach_replica_from_master(s, "/acc/sub/f", 0), 0);
        EXPECT_EQ(ember_file_get_state(s, "/acc/sub/f", &st), 0);
        EXPECT_EQ(take(st), "replica.enabled = 0\nreplica.is_master = 0\nreplica.peer_uid = \n");
        EXPECT_EQ(ember_file_join_to_slave_replica(m, "/acc/sub/f", "dc-b"), 0);
        EXPECT_EQ(ember_file_join_to_slave_replica(m, "/acc/sub/f", "dc-z"), -MOX_ENOENT);
        EXPECT_EQ(ember_file_disable_replication(m, "/acc/sub/f", 0), 0);
        EXPECT_EQ(ember_file_get_state(s, "/acc/sub/f", &st), 0);
        EXPECT_EQ(take(st), "replica.enabled = 0\nreplica.is_master = 0\nreplica.peer_uid = \n");
        ember_client_put(s);
        ember_client_put(m);
    });
    std::ifstream in(slave.data() + "/acc/sub/f");
    std::string copy((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(copy, "payload");
}

// Which operations each grant mask allows: 3 checks, 7 replicates, 11 pulls.
TEST(EmberClient, AccessMasksAreEnforced)
{
    Sim sim;
    sim.mkdir("/acc");
    sim.write("/acc/f");
    run_in_coroutine([&] {
        struct {
            uint32_t mask;
            int get, set1, set2, pull, state, enable;
        } cases[] = {
            {3, -MOX_ENOENT, -MOX_EPERM, -MOX_EPERM, -MOX_EPERM, 0, -MOX_EPERM},
            {7, -MOX_ENOENT, 0, -MOX_EPERM, -MOX_EPERM, 0, -MOX_EPERM /* no secret */},
            {11, -MOX_ENOENT, -MOX_EPERM, 0, 0, 0, -MOX_EPERM},
            {2, -MOX_EPERM, -MOX_EPERM, -MOX_EPERM, -MOX_EPERM, -MOX_EPERM, -MOX_EPERM},
        };
        for (auto &tc : cases) {
            ember_client *c = jwt_client(sim.addr(), "web-ec.pem", tc.mask);
            char *s = nullptr;
            EXPECT_EQ(ember_get_trust_secret(c, "acc", 3, &s), tc.get) << tc.mask;
            EXPECT_EQ(ember_set_trust_secret(c, "acc", 1, ""), tc.set1) << tc.mask;
            EXPECT_EQ(ember_set_trust_secret(c, "acc", 2, ""), tc.set2) << tc.mask;
            EXPECT_EQ(ember_account_pull_configure_dst(c, "n", "u", "h", "acc", "s", 4), tc.pull)
                << tc.mask;
            EXPECT_EQ(ember_file_get_state(c, "/acc/f", &s), tc.state) << tc.mask;
            mox_free(s);
            EXPECT_EQ(ember_file_enable_replication(c, "/acc/f", "127.0.0.1:1", "u"), tc.enable)
                << tc.mask;
            ember_client_put(c);
        }
    });
}

TEST(EmberClient, RefusedCredentials)
{
    Sim sim("dc-a");
    sim.mkdir("/acc");
    run_in_coroutine([&] {
        char *s = nullptr;
        ember_client *none = ember_client_alloc();
        ember_client_set_host(none, sim.addr().c_str());
        EXPECT_EQ(ember_get_trust_secret(none, "acc", 1, &s), -MOX_EAUTH);
        ember_client_put(none);
        // Signed by a key the sim does not trust; meant for another gateway.
        for (ember_client *c : {jwt_client(sim.addr(), "site-ec.pem", 15),
                                jwt_client(sim.addr(), "site-rsa.pem", 15, "dc-b")}) {
            EXPECT_EQ(ember_get_trust_secret(c, "acc", 1, &s), -MOX_EAUTH);
            ember_client_put(c);
        }
        ember_client *same = jwt_client(sim.addr(), "site-rsa.pem", 15, "dc-a");
        EXPECT_EQ(ember_get_trust_secret(same, "acc", 1, &s), -MOX_ENOENT);
        ember_client_put(same);
        // A client certificate from another CA fails the TLS handshake.
        ember_client *stranger = cert_client(sim.addr(), "untrusted.pem");
        EXPECT_EQ(ember_get_trust_secret(stranger, "acc", 1, &s), -MOX_EAUTH);
        ember_client_put(stranger);
    });
}

TEST(EmberClient, GatewayOfAnUnknownCaIsRefused)
{
    Sim sim("dc-a", {}, "stranger-server");
    sim.mkdir("/acc");
    run_in_coroutine([&] {
        ember_client *c = cert_client(sim.addr(), "site-ec.pem");
        char *s = nullptr;
        EXPECT_EQ(ember_get_trust_secret(c, "acc", 1, &s), -MOX_EAUTH);
        ember_client_put(c);
    });
}

TEST(EmberClient, TransportFailuresAndFaults)
{
    Sim sim;
    sim.mkdir("/acc");
    sim.write("/acc/f");
    sim.write("/acc/g");
    sim.fault(R"({"op":"/v1/file/state","path":"/acc/f","error":80})");
    sim.fault(R"({"op":"/v1/file/state","path":"/acc/g","drop":true})");
    sim.fault(R"({"op":"/v1/file/open","path":"/acc/f","delay_ms":3000})");
    run_in_coroutine([&] {
        char *s = nullptr;
        ember_client *c = cert_client(sim.addr(), "site-ec.pem");
        EXPECT_EQ(ember_file_get_state(c, "/acc/f", &s), -MOX_EIO);
        EXPECT_EQ(ember_file_get_state(c, "/acc/g", &s), -ECONNRESET);
        ember_file *f = nullptr;
        ASSERT_EQ(ember_file_open(c, &f, "/acc/g", 0), 0); // a fresh connection
        EXPECT_EQ(ember_file_close(f), 0);
        mox_co_ctx_set_timeout(300);
        EXPECT_EQ(ember_file_open(c, &f, "/acc/f", 0), -ETIMEDOUT);
        EXPECT_EQ(ember_file_open(c, &f, "/acc/g", 0), -ETIMEDOUT); // deadline gone
        ember_client_put(c);
        ember_client *nowhere = cert_client("127.0.0.1:1", "site-ec.pem");
        mox_co_set_ctx(nullptr);
        EXPECT_EQ(ember_file_get_state(nowhere, "/acc/f", &s), -ECONNREFUSED);
        ember_client_put(nowhere);
    });
}

// A kept-alive connection that the gateway closes is replaced once.
TEST(EmberClient, ReconnectsOnceAfterTheGatewayClosed)
{
    Sim sim;
    sim.mkdir("/acc");
    sim.write("/acc/f");
    run_in_coroutine([&] {
        ember_client *c = cert_client(sim.addr(), "site-ec.pem");
        char *s = nullptr;
        ASSERT_EQ(ember_file_get_state(c, "/acc/f", &s), 0);
        mox_free(s);
        sim.fault(R"({"op":"/v1/file/state","drop":true,"count":1})");
        EXPECT_EQ(ember_file_get_state(c, "/acc/f", &s), 0);
        mox_free(s);
        sim.fault(R"({"op":"/v1/file/state","drop":true,"count":2})");
        EXPECT_EQ(ember_file_get_state(c, "/acc/f", &s), -ECONNRESET);
        EXPECT_EQ(ember_file_get_state(c, "/acc/f", &s), 0);
        mox_free(s);
        ember_client_put(c);
    });
}

} // namespace
