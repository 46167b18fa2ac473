// The client's transport under deadlines, cancellation, lost connections,
// unusable answers, and addresses by name and IPv6.
#include "co_runner.h"
#include "ember/ember.h"
#include "gateway_sim.h"
#include "mox/mox.h"

#include <arpa/inet.h>
#include <cerrno>
#include <condition_variable>
#include <gtest/gtest.h>
#include <mutex>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using ember_test::cert_client;
using ember_test::Sim;
using tarn_test::run_in_coroutine;

namespace
{

std::string port_of(const Sim &sim)
{
    return sim.addr().substr(sim.addr().rfind(':') + 1);
}

// A loopback listener that never accepts and never speaks. With `full`, its
// accept queue is filled first, so a further connect never completes. After
// five seconds it closes, so a client that ignores its deadline fails with
// another code instead of hanging.
class SilentListener
{
  public:
    explicit SilentListener(bool full)
    {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&a), len), 0);
        EXPECT_EQ(listen(fd_, full ? 0 : 8), 0);
        getsockname(fd_, reinterpret_cast<sockaddr *>(&a), &len);
        port_ = ntohs(a.sin_port);
        for (int i = 0; full && i < 2; ++i) {
            fillers_[i] = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            (void)connect(fillers_[i], reinterpret_cast<sockaddr *>(&a), len);
        }
        watchdog_ = std::thread([this] {
            std::unique_lock<std::mutex> lock(mu_);
            if (!cv_.wait_for(lock, std::chrono::seconds(5), [this] { return done_; }))
                shutdown(fd_, SHUT_RDWR);
        });
    }
    ~SilentListener()
    {
        {
            std::lock_guard<std::mutex> lock(mu_);
            done_ = true;
        }
        cv_.notify_all();
        watchdog_.join();
        for (int fd : {fd_, fillers_[0], fillers_[1]}) {
            if (fd >= 0)
                close(fd);
        }
    }
    std::string addr() const { return "127.0.0.1:" + std::to_string(port_); }

  private:
    int fd_ = -1, port_ = 0, fillers_[2] = {-1, -1};
    std::mutex mu_;
    std::condition_variable cv_;
    bool done_ = false;
    std::thread watchdog_;
};

int32_t cancel_soon(mox_co *, void *ctx)
{
    int32_t ms = 200;
    mox_co_wait_timeout(&ms);
    mox_context_cancel(static_cast<mox_context *>(ctx));
    return 0;
}

enum class Stall { Connect, Handshake, Answer, AnswerCancelled };

// A call stalled at each step ends with its context; the gateway's delayed
// request has not been carried out yet when it returns, and the same handle
// works again in a fresh context.
TEST(EmberTransport, DeadlinesAndCancellation)
{
    struct {
        const char *name;
        Stall stall;
        int rc;
    } cases[] = {
        {"connect", Stall::Connect, -ETIMEDOUT},
        {"TLS handshake", Stall::Handshake, -ETIMEDOUT},
        {"answer", Stall::Answer, -ETIMEDOUT},
        {"cancelled", Stall::AnswerCancelled, -ECANCELED},
    };
    for (auto &tc : cases) {
        SCOPED_TRACE(tc.name);
        bool at_sim = tc.stall == Stall::Answer || tc.stall == Stall::AnswerCancelled;
        std::optional<SilentListener> silent;
        std::optional<Sim> sim;
        if (at_sim) {
            sim.emplace();
            sim->mkdir("/acc");
        } else {
            silent.emplace(tc.stall == Stall::Connect);
        }
        run_in_coroutine([&] {
            ember_client *c = cert_client(at_sim ? sim->addr() : silent->addr(), "site-ec.pem");
            if (at_sim) {
                ASSERT_EQ(ember_set_trust_secret(c, "acc", 1, "early"), 0);
                sim->fault(R"({"op":"/v1/trust-secret/set","delay_ms":4000})");
            }
            mox_context *ctx = mox_context_alloc();
            if (tc.stall == Stall::AnswerCancelled)
                mox_co_create(ctx, cancel_soon, ctx);
            else
                mox_context_set_timeout(ctx, 300);
            mox_co_set_ctx(ctx);
            EXPECT_EQ(ember_set_trust_secret(c, "acc", 1, "late"), tc.rc);
            mox_co_set_ctx(nullptr);
            mox_context_put(ctx);
            if (at_sim) {
                char *s = nullptr;
                EXPECT_EQ(ember_get_trust_secret(c, "acc", 1, &s), 0);
                EXPECT_STREQ(s, "early") << "the call waited for the gateway";
                mox_free(s);
            }
            ember_client_put(c);
        });
    }
}

// After a lost connection a request is sent again only when it cannot have
// been carried out twice: nothing of it went out, or it is idempotent.
TEST(EmberTransport, RepeatsOnlyWhatIsSafeToRepeat)
{
    struct {
        const char *name;
        const char *fault;
        int open_rc, set_rc, open_files;
    } cases[] = {
        {"open carried out, unanswered",
         R"({"op":"/v1/file/open","drop":true,"close_after":true,"count":1})", -ECONNRESET, 0, 1},
        {"set carried out, unanswered",
         R"({"op":"/v1/trust-secret/set","drop":true,"close_after":true,"count":1})", 0, 0, 1},
        {"closed while idle", R"({"op":"/v1/file/state","close_after":true,"count":1})", 0, 0, 1},
    };
    for (auto &tc : cases) {
        SCOPED_TRACE(tc.name);
        Sim sim;
        sim.mkdir("/acc");
        sim.write("/acc/f");
        run_in_coroutine([&] {
            ember_client *c = cert_client(sim.addr(), "site-ec.pem");
            char *s = nullptr;
            sim.fault(tc.fault);
            ASSERT_EQ(ember_file_get_state(c, "/acc/f", &s), 0);
            mox_free(s);
            ember_file *f = nullptr;
            EXPECT_EQ(ember_file_open(c, &f, "/acc/f", 0), tc.open_rc);
            EXPECT_EQ(ember_set_trust_secret(c, "acc", 1, "x"), tc.set_rc);
            ember_client_put(c);
        });
        std::string dump = sim.dump();
        EXPECT_NE(dump.find("\"open_files\":" + std::to_string(tc.open_files)), std::string::npos)
            << dump;
    }
}

TEST(EmberTransport, UnusableAnswersAndAddresses)
{
    const std::string label(64, 'a');
    const std::string long_name = label + ".invalid";
    const char *kLongLabel = long_name.c_str();
    struct {
        const char *name;
        const char *listen, *cert, *host, *fault;
        int rc;
    } cases[] = {
        {"not JSON", "127.0.0.1:0", "server", "127.0.0.1",
         R"({"op":"/v1/trust-secret/get","body":"<html>"})", -MOX_EPROTO},
        {"no secret field", "127.0.0.1:0", "server", "127.0.0.1",
         R"({"op":"/v1/trust-secret/get","body":"{\"error\":0}"})", -MOX_EPROTO},
        {"IPv6 loopback", "[::1]:0", "server-names", "[::1]", nullptr, -MOX_ENOENT},
        {"host name", "127.0.0.1:0", "server-names", "localhost", nullptr, -MOX_ENOENT},
        {"host name not in the certificate", "127.0.0.1:0", "server", "localhost", nullptr,
         -MOX_EAUTH},
        // A label over 63 bytes fails in the resolver itself: no query
        // leaves the machine.
        {"name that does not resolve", "127.0.0.1:0", "server", kLongLabel, nullptr, -EHOSTUNREACH},
        {"address not in the certificate", "127.0.0.1:0", "server-names", "127.0.0.1", nullptr,
         -MOX_EAUTH},
    };
    for (auto &tc : cases) {
        SCOPED_TRACE(tc.name);
        Sim sim("dc-a", {"--listen", tc.listen}, tc.cert);
        sim.mkdir("/acc");
        if (tc.fault)
            sim.fault(tc.fault);
        run_in_coroutine([&] {
            ember_client *c = cert_client(std::string(tc.host) + ":" + port_of(sim), "site-ec.pem");
            char *s = nullptr;
            EXPECT_EQ(ember_get_trust_secret(c, "acc", 1, &s), tc.rc);
            EXPECT_EQ(s, nullptr);
            ember_client_put(c);
        });
    }
}

} // namespace
