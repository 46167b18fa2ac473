// The client's transport: deadlines and cancellation, unusable answers,
// addresses by name and IPv6, refused credentials, and lost connections.
#include "co_runner.h"
#include "ember/ember.h"
#include "ember/protocol.hpp"
#include "gateway_sim.h"
#include "mox/mox.h"

#include <arpa/inet.h>
#include <cerrno>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <optional>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace p = ember_proto;
using ember_test::cert_client;
using ember_test::Sim;
using tarn_test::run_in_coroutine;

namespace
{

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
};

// Cancels the call's context after `ms`: the cancelling rows, and a bound on
// a client that ignores its deadline. Woken early, it does nothing.
struct Watchdog {
    mox_context *ctx;
    int32_t ms;
};

int32_t watch(mox_co *, void *arg)
{
    auto *w = static_cast<Watchdog *>(arg);
    if (mox_co_wait_timeout(&w->ms) != 0)
        mox_context_cancel(w->ctx);
    return 0;
}

enum class Peer { sim, silent, full, none };
enum Call { get_secret, set_secret, open_file }; // all but the first on a kept-alive connection

struct Row {
    const char *what;
    int rc;
    std::string fault{}; // on the simulator; then the handle works again
    Call call = get_secret;
    Peer peer = Peer::sim;
    const char *host = "127.0.0.1";                       // dialled with the peer's port
    const char *listen = "127.0.0.1:0", *cert = "server"; // the simulator's
    const char *pem = "site-ec.pem";                      // the client's; null for none
    int32_t ms = 0, cancel = 5000; // the call's deadline, and when it is cancelled
};

// A fault applied `count` times on `op`.
std::string once(const char *rest, const char *op = p::op_secret_get, int count = 1)
{
    std::string json = R"({"op":")";
    json.append(op).append("\",").append(rest).append(",\"count\":");
    return json.append(std::to_string(count)).append("}");
}

const char *const kLost = R"("drop":true,"close_after":true)"; // carried out, unanswered
const std::string kDelay = once(R"("delay_ms":4000)");
const std::string long_name = std::string(64, 'a') + ".invalid";

// One call in a context of its own. A lost kept-alive connection is replaced,
// once, only when the request cannot have been carried out twice: it is
// idempotent, or nothing of it went out.
TEST(EmberTransport, CallsEndWithTheirCause)
{
    const Row rows[] = {
        {.what = "connect past the deadline", .rc = -ETIMEDOUT, .peer = Peer::full, .ms = 300},
        {.what = "handshake past the deadline", .rc = -ETIMEDOUT, .peer = Peer::silent, .ms = 300},
        {.what = "answer past the deadline", .rc = -ETIMEDOUT, .fault = kDelay, .ms = 300},
        {.what = "cancelled while waiting", .rc = -ECANCELED, .fault = kDelay, .cancel = 200},
        {.what = "not JSON", .rc = -MOX_EPROTO, .fault = once(R"("body":"<html>")")},
        {.what = "no secret field", .rc = -MOX_EPROTO, .fault = once(R"("body":"{\"error\":0}")")},
        {.what = "gateway error", .rc = -MOX_EIO, .fault = once(R"("error":80)")},
        {.what = "fresh connection lost", .rc = -ECONNRESET, .fault = once(R"("drop":true)")},
        {.what = "open lost",
         .rc = -ECONNRESET,
         .fault = once(kLost, p::op_file_open),
         .call = open_file},
        {.what = "set lost", .rc = 0, .fault = once(kLost, p::op_secret_set), .call = set_secret},
        {.what = "set lost twice",
         .rc = -ECONNRESET,
         .fault = once(kLost, p::op_secret_set, 2),
         .call = set_secret},
        {.what = "closed while idle",
         .rc = 0,
         .fault = once(R"("close_after":true)", p::op_file_state),
         .call = open_file},
        {.what = "nothing listens", .rc = -ECONNREFUSED, .peer = Peer::none, .host = "127.0.0.1:1"},
        {.what = "IPv6 loopback",
         .rc = -MOX_ENOENT,
         .host = "[::1]",
         .listen = "[::1]:0",
         .cert = "server-names"},
        {.what = "host name", .rc = -MOX_ENOENT, .host = "localhost", .cert = "server-names"},
        {.what = "host name not in the certificate", .rc = -MOX_EAUTH, .host = "localhost"},
        {.what = "address not in the certificate", .rc = -MOX_EAUTH, .cert = "server-names"},
        // A label over 63 bytes fails in the resolver: no query leaves.
        {.what = "name that does not resolve", .rc = -EHOSTUNREACH, .host = long_name.c_str()},
        {.what = "gateway of an unknown CA", .rc = -MOX_EAUTH, .cert = "stranger-server"},
        {.what = "client of an unknown CA", .rc = -MOX_EAUTH, .pem = "untrusted.pem"},
        {.what = "no credentials", .rc = -MOX_EAUTH, .pem = nullptr},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        std::optional<Sim> sim;
        std::optional<SilentListener> silent;
        std::string addr = r.host;
        if (r.peer == Peer::sim) {
            sim.emplace("dc-a", std::vector<std::string>{"--listen", r.listen}, r.cert);
            sim->mkdir("/acc");
            sim->write("/acc/f");
            if (!r.fault.empty())
                sim->fault(r.fault);
            addr += ":" + std::to_string(sim->port());
        } else if (r.peer != Peer::none) {
            silent.emplace(r.peer == Peer::full);
            addr += ":" + std::to_string(ntohs(silent->a.sin_port));
        }
        run_in_coroutine([&] {
            ember_client *c = r.pem ? cert_client(addr, r.pem) : ember_client_alloc();
            ember_client_set_host(c, addr.c_str());
            char *s = nullptr;
            int32_t idle = 200; // long enough for a closing gateway's close to arrive
            if (r.call != get_secret) {
                EXPECT_EQ(ember_file_get_state(c, "/acc/f", &s), 0);
                mox_free(std::exchange(s, nullptr));
                mox_co_wait_timeout(&idle);
            }
            mox_context *ctx = mox_context_alloc();
            if (r.ms)
                mox_context_set_timeout(ctx, r.ms);
            Watchdog w{ctx, r.cancel};
            mox_co *dog = mox_co_create(nullptr, watch, &w);
            mox_co_set_ctx(ctx);
            ember_file *f = nullptr;
            EXPECT_EQ(r.call == open_file    ? ember_file_open(c, &f, "/acc/f", 0)
                      : r.call == set_secret ? ember_set_trust_secret(c, "acc", 1, "")
                                             : ember_get_trust_secret(c, "acc", 1, &s),
                      r.rc);
            EXPECT_EQ(s, nullptr);
            if (r.rc == -ETIMEDOUT) {
                EXPECT_EQ(ember_get_trust_secret(c, "acc", 1, &s), -ETIMEDOUT) << "deadline gone";
            }
            mox_co_set_ctx(nullptr);
            mox_co_wakeup(dog);
            mox_co_join(dog);
            mox_context_put(ctx);
            if (f)
                ember_file_close(f);
            if (!r.fault.empty()) {
                EXPECT_EQ(ember_get_trust_secret(c, "acc", 1, &s), -MOX_ENOENT) << "handle reused";
            }
            ember_client_put(c);
        });
    }
}

} // namespace
