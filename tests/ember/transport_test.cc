// The client's transport under deadlines, cancellation, lost connections,
// unusable answers, and addresses by name and IPv6.
#include "co_runner.h"
#include "ember/ember.h"
#include "gateway_sim.h"
#include "mox/mox.h"

#include <arpa/inet.h>
#include <cerrno>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <optional>
#include <sys/socket.h>
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
// accept queue is filled first, so a further connect never completes.
struct SilentListener {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), fillers[2] = {-1, -1};
    sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};

    explicit SilentListener(bool full)
    {
        socklen_t len = sizeof a;
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&a), len), 0);
        EXPECT_EQ(listen(fd, full ? 0 : 8), 0);
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
        for (int i = 0; full && i < 2; ++i) {
            fillers[i] = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            (void)connect(fillers[i], reinterpret_cast<sockaddr *>(&a), len);
        }
    }
    ~SilentListener()
    {
        for (int f : {fd, fillers[0], fillers[1]})
            close(f);
    }
    std::string addr() const { return "127.0.0.1:" + std::to_string(ntohs(a.sin_port)); }
};

// After `ms`, shuts the silent listener down (fd >= 0) or cancels the
// call's context: the cancelling case, or a bound on a client that ignores
// its deadline, which then fails with another code instead of hanging.
// Woken early, it does nothing.
struct Watchdog {
    int fd;
    mox_context *ctx;
    int32_t ms;
};

int32_t watch(mox_co *, void *arg)
{
    auto *w = static_cast<Watchdog *>(arg);
    if (mox_co_wait_timeout(&w->ms) == 0)
        return 0;
    if (w->fd >= 0)
        shutdown(w->fd, SHUT_RDWR);
    else
        mox_context_cancel(w->ctx);
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
            if (tc.stall != Stall::AnswerCancelled) {
                mox_context_set_timeout(ctx, 300);
            }
            bool cancel = tc.stall == Stall::AnswerCancelled;
            Watchdog w{silent ? silent->fd : -1, ctx, cancel ? 200 : 5000};
            mox_co *dog = mox_co_create(nullptr, watch, &w);
            mox_co_set_ctx(ctx);
            EXPECT_EQ(ember_set_trust_secret(c, "acc", 1, "late"), tc.rc);
            mox_co_set_ctx(nullptr);
            mox_co_wakeup(dog);
            mox_co_join(dog);
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
            int32_t idle = 200; // the connection idles; a closing gateway has closed it
            mox_co_wait_timeout(&idle);
            ember_file *f = nullptr;
            EXPECT_EQ(ember_file_open(c, &f, "/acc/f", 0), tc.open_rc);
            EXPECT_EQ(ember_set_trust_secret(c, "acc", 1, "x"), tc.set_rc);
            // How often the open was carried out (a blocking call is fine here).
            std::string dump = sim.dump();
            EXPECT_NE(dump.find("\"open_files\":" + std::to_string(tc.open_files)),
                      std::string::npos)
                << dump;
            if (f != nullptr)
                ember_file_close(f);
            ember_client_put(c);
        });
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
