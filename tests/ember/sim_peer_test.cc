// Simulators talking to each other: account pulls, large files, peers
// that call each other at once or never answer.
#include "co_runner.h"
#include "ember/ember.h"
#include "gateway_sim.h"
#include "mox/mox.h"

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <fstream>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using ember_test::cert_client;
using ember_test::Sim;
using tarn_test::run_in_coroutine;

namespace
{

// `n` bytes of a fixed pseudo-random sequence: no runs of zeros to sparsify.
std::string pattern(size_t n, uint64_t seed)
{
    std::string out(n, '\0');
    for (char &c : out) {
        seed = seed * 6364136223846793005u + 1442695040888963407u;
        c = static_cast<char>(seed >> 56);
    }
    return out;
}

std::string slurp(const std::string &path)
{
    std::ostringstream out;
    out << std::ifstream(path, std::ios::binary).rdbuf();
    return out.str();
}

std::string sha256_of(const std::string &path)
{
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned len = 0;
    std::string data = slurp(path);
    EVP_Digest(data.data(), data.size(), md, &len, EVP_sha256(), nullptr);
    return std::string(reinterpret_cast<char *>(md), len);
}

mode_t mode_of(const std::string &path)
{
    struct stat sb = {};
    return stat(path.c_str(), &sb) == 0 ? sb.st_mode & 07777 : 0;
}

TEST(SimPeer, AccountPullFetchesTheTreeAndRecordsItsStatus)
{
    const std::string secret = "0123456789abcdefghijABCDEFGHIJ0123456789";
    struct {
        std::vector<std::string> dst_options;
        std::string src_secret;
        int flags;
        const char *status;
        bool source_kept;
    } cases[] = {
        {{}, secret, 4, "done", true},
        {{"--pull-on-configure"}, secret, 5, "done", false},
        {{"--pull-on-configure"}, "another", 5, "failed: 61", true},
    };
    // Three chunks, an empty file, nested and empty directories.
    const std::map<std::string, std::string> files = {
        {"/big", pattern(1200 * 1024, 1)}, {"/d/f", "small"}, {"/d/empty", ""}};
    for (auto &tc : cases) {
        SCOPED_TRACE(tc.status + std::string(" flags ") + std::to_string(tc.flags));
        Sim src("dc-b"), dst("dc-a", tc.dst_options);
        src.mkdir("/acc/d/e");
        for (auto &[path, content] : files)
            src.write("/acc" + path, content);
        run_in_coroutine([&] {
            ember_client *s = cert_client(src.addr(), "site-ec.pem");
            ember_client *d = cert_client(dst.addr(), "site-ec.pem");
            EXPECT_EQ(ember_set_trust_secret(s, "acc", 2, tc.src_secret.c_str()), 0);
            EXPECT_EQ(ember_account_pull_configure_dst(d, "new", "dc-b", src.addr().c_str(), "acc",
                                                       secret.c_str(), tc.flags),
                      0);
            ember_client_put(d);
            ember_client_put(s);
        });
        if (tc.dst_options.empty()) {
            EXPECT_EQ(mode_of(dst.data() + "/new"), 0u) << "pulled before it was asked to";
            EXPECT_EQ(dst.post("/v1/test/pull-run", R"({"account":"new"})"),
                      R"({"pulls":{"new":"done"},"error":0})");
        }
        std::string status = std::string("\"status\":\"") + tc.status + "\"";
        EXPECT_NE(dst.dump().find(status), std::string::npos) << dst.dump();
        bool copied = std::string(tc.status) == "done";
        for (auto &[path, content] : files)
            EXPECT_EQ(mode_of(dst.data() + "/new" + path) &&
                          slurp(dst.data() + "/new" + path) == content,
                      copied)
                << path;
        EXPECT_EQ(mode_of(dst.data() + "/new/d/e"), copied ? 0700u : 0u);
        EXPECT_EQ(mode_of(dst.data() + "/new/big"), copied ? 0600u : 0u);
        EXPECT_EQ(mode_of(src.data() + "/acc/d/f") != 0, tc.source_kept);
        EXPECT_EQ(src.dump().find("\"2\":") != std::string::npos, tc.source_kept) << src.dump();
    }
}

TEST(SimPeer, LargeFileReplicatesByteForByte)
{
    Sim master("dc-a"), slave("dc-b");
    master.mkdir("/acc");
    slave.mkdir("/acc");
    {
        std::ofstream out(master.data() + "/acc/big", std::ios::binary);
        for (uint64_t mib = 0; mib < 64; mib++)
            out << pattern(1 << 20, mib);
    }
    run_in_coroutine(
        [&] {
            mox_co_ctx_set_timeout(90000);
            ember_client *m = cert_client(master.addr(), "site-ec.pem");
            ember_client *s = cert_client(slave.addr(), "site-ec.pem");
            EXPECT_EQ(ember_set_trust_secret(m, "acc", 1, "shared"), 0);
            EXPECT_EQ(ember_set_trust_secret(s, "acc", 1, "shared"), 0);
            EXPECT_EQ(ember_file_enable_replication(m, "/acc/big", slave.addr().c_str(), "dc-b"),
                      0);
            ember_client_put(s);
            ember_client_put(m);
        },
        120);
    EXPECT_EQ(sha256_of(slave.data() + "/acc/big"), sha256_of(master.data() + "/acc/big"));
    EXPECT_EQ(mode_of(slave.data() + "/acc/.tmp.big.recv.xml"), 0u) << "temporary file left";
}

// The slave closes the master's kept-alive connection between two
// replications: the second goes out on a fresh connection.
TEST(SimPeer, ReplicationAfterThePeerClosedItsConnectionSucceeds)
{
    struct row {
        const char *name;
        std::vector<std::string> slave_options;
        const char *fault; // on the slave, or null
    } rows[] = {
        {"idle timeout", {"--idle-timeout", "200"}, nullptr},
        {"closed after the answer",
         {},
         R"({"op":"/v1/peer/replica","close_after":true,"count":1})"},
    };
    for (const row &r : rows) {
        Sim master("dc-a"), slave("dc-b", r.slave_options);
        master.mkdir("/acc");
        slave.mkdir("/acc");
        master.write("/acc/f1");
        master.write("/acc/f2");
        if (r.fault)
            slave.fault(r.fault);
        auto enable = [&](const char *path) {
            int rc = -1;
            run_in_coroutine([&] {
                mox_co_ctx_set_timeout(15000);
                ember_client *m = cert_client(master.addr(), "site-ec.pem");
                ember_client *s = cert_client(slave.addr(), "site-ec.pem");
                EXPECT_EQ(ember_set_trust_secret(m, "acc", 1, "shared"), 0);
                EXPECT_EQ(ember_set_trust_secret(s, "acc", 1, "shared"), 0);
                rc = ember_file_enable_replication(m, path, slave.addr().c_str(), "dc-b");
                ember_client_put(s);
                ember_client_put(m);
            });
            return rc;
        };
        int first = enable("/acc/f1");
        // Long enough for the slave's close to reach the master.
        std::this_thread::sleep_for(std::chrono::milliseconds(600));
        int second = enable("/acc/f2");
        EXPECT_EQ(first, 0) << r.name;
        EXPECT_EQ(second, 0) << r.name << ": the reused connection was not replaced";
    }
}

// Each side replicates its files to the other at the same time.
TEST(SimPeer, SimsReplicatingToEachOtherBothFinish)
{
    struct side {
        Sim *self, *peer;
        std::string prefix;
        int failures = 0;
    };
    Sim a("dc-a"), b("dc-b");
    side sides[] = {{&a, &b, "/acc/a"}, {&b, &a, "/acc/b"}};
    for (side &sd : sides) {
        sd.self->mkdir("/acc");
        for (int i = 0; i < 20; i++)
            sd.self->write(sd.prefix + std::to_string(i), pattern(200000, i));
    }
    auto enable_all = [](mox_co *, void *arg) -> int32_t {
        side &sd = *static_cast<side *>(arg);
        mox_co_ctx_set_timeout(15000);
        ember_client *c = cert_client(sd.self->addr(), "site-ec.pem");
        EXPECT_EQ(ember_set_trust_secret(c, "acc", 1, "shared"), 0);
        for (int i = 0; i < 20; i++) {
            std::string path = sd.prefix + std::to_string(i);
            int rc = ember_file_enable_replication(c, path.c_str(), sd.peer->addr().c_str(),
                                                   sd.peer->uid().c_str());
            sd.failures += rc != 0;
        }
        ember_client_put(c);
        return 0;
    };
    run_in_coroutine(
        [&] {
            mox_co *other = mox_co_create(nullptr, enable_all, &sides[1]);
            enable_all(nullptr, &sides[0]);
            mox_co_join(other);
        },
        20);
    for (side &sd : sides)
        EXPECT_EQ(sd.failures, 0) << sd.prefix << ": enables that failed or timed out";
}

// A peer that accepts the connection and never speaks.
TEST(SimPeer, SilentPeerFailsTheCallWhileOtherRequestsGoOn)
{
    Sim sim("dc-a", {"--peer-timeout", "3000"});
    sim.mkdir("/acc");
    sim.write("/acc/f");
    int lfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    ASSERT_EQ(bind(lfd, reinterpret_cast<sockaddr *>(&sa), len), 0);
    ASSERT_EQ(listen(lfd, 4), 0);
    getsockname(lfd, reinterpret_cast<sockaddr *>(&sa), &len);
    std::string silent = "127.0.0.1:" + std::to_string(ntohs(sa.sin_port));
    std::atomic<bool> enable_answered{false};
    bool dumped_during_hang = false;
    int conn = -1;
    std::thread watcher([&] {
        struct pollfd p = {lfd, POLLIN, 0};
        if (poll(&p, 1, 10000) != 1 || (conn = accept(lfd, nullptr, nullptr)) < 0)
            return;
        dumped_during_hang =
            sim.dump().find("\"uid\":\"dc-a\"") != std::string::npos && !enable_answered;
    });
    run_in_coroutine([&] {
        mox_co_ctx_set_timeout(20000);
        ember_client *c = cert_client(sim.addr(), "site-ec.pem");
        EXPECT_EQ(ember_set_trust_secret(c, "acc", 1, "shared"), 0);
        EXPECT_EQ(ember_file_enable_replication(c, "/acc/f", silent.c_str(), "dc-x"), -ETIMEDOUT);
        EXPECT_EQ(mox_co_check_ctx(), 0) << "the simulator did not give up on its peer";
        enable_answered = true;
        ember_client_put(c);
    });
    watcher.join();
    EXPECT_GE(conn, 0) << "the simulator never connected to the peer";
    EXPECT_TRUE(dumped_during_hang) << "no dump while the peer call hung";
    close(conn);
    close(lfd);
}

} // namespace
