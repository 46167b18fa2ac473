// The client library: what it checks before any call, the tokens it signs,
// directory handles, and calls under deadlines, cancellation, lost
// connections, unusable answers and refused credentials.
#include "co_runner.h"
#include "ember/ar_io.h"
#include "ember/ember.h"
#include "ember/protocol.hpp"
#include "gateway_sim.h"
#include "mox/mox.h"

#include <algorithm>
#include <arpa/inet.h>
#include <boost/json.hpp>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <optional>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace json = boost::json;
namespace p = ember_proto;

using ember_test::cert_client;
using ember_test::jwt_client;
using ember_test::pki_file;
using ember_test::Sim;
using tarn_test::run_in_coroutine;

namespace
{

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

// Names go as text exactly when the gateway's JSON parser takes them, and
// come back the same in either form.
TEST(EmberNames, Utf8CheckAgreesWithTheParser)
{
    const char *names[] = {
        "plain",    "caf\xc3\xa9",  "\xf0\x9f\x98\x80", "\xef\xbf\xbf",    "",
        "\xff",     "\xc3\x28",     "\xc0\x80",         "\xed\xa0\x80",    "\xf4\x90\x80\x80",
        "\xe2\x82", "\xe0\x80\x80", "\xf0\x80\x80\x80", "\xf5\x80\x80\x80"};
    for (std::string name : names) {
        boost::system::error_code ec;
        json::parse("\"" + name + "\"", ec);
        EXPECT_EQ(p::utf8_valid(name), !ec) << testing::PrintToString(name);
        json::object o;
        p::put_name(o, "name", name);
        std::string back;
        EXPECT_TRUE(p::get_name(o, "name", back) == 1 && back == name) << json::serialize(o);
    }
}

// An error code sent as a status alone comes back as itself.
TEST(EmberProtocol, StatusesCarryErrorCodes)
{
    for (int code = 0; code < 100; code++) {
        if (code == p::err_malformed || code == p::err_notdir)
            continue; // they share their status with err_inval and err_noent
        EXPECT_EQ(p::err_for_status(p::status_for_err(code)),
                  p::status_for_err(code) == 500 ? p::err_io : code);
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
    EXPECT_EQ(ember_client_load_auth_from_pem_file(site, pki_file("ca.pem").c_str()),
              -MOX_EMALFORMED); // a certificate without its key
    EXPECT_EQ(ember_client_set_jwt(site, "not-a-token"), -MOX_EINVAL);
    EXPECT_EQ(ember_client_set_allowed_protos(site, 4), -MOX_EINVAL);
    ember_client_put(web);
    ember_client_put(site);
    ember_client *jwt = jwt_client("127.0.0.1", "site-rsa.pem", 11);
    EXPECT_TRUE(ember_client_is_jwt(jwt));
    ember_client_put(jwt);
}

// The header names the algorithm of the key; keys that no label fits sign
// nothing (secp256k1 is 256 bits too, but not what ES256 names).
TEST(EmberJwt, AlgorithmFollowsTheKey)
{
    std::pair<const char *, const char *> rows[] = {
        {"RSA", "RS256"},       {"P-256", "ES256"},           {"P-384", nullptr},
        {"secp256k1", nullptr}, {"brainpoolP256r1", nullptr}, {"ED25519", nullptr},
        {"", nullptr},
    };
    for (auto &[key, alg] : rows) {
        SCOPED_TRACE(key);
        std::string type = key;
        EVP_PKEY *k = type == "RSA"       ? EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{2048})
                      : type == "ED25519" ? EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519")
                      : *key              ? EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", key)
                                          : nullptr;
        ember_jwt_request req = {"a", "b", "c", "d", "e", nullptr, 0, k};
        char *jwt = ember_jwt_generate(&req);
        std::string header;
        EVP_PKEY_free(k);
        p::base64url_decode(jwt ? std::string_view(jwt, strcspn(jwt, ".")) : "", header);
        EXPECT_EQ(header, alg ? std::string(R"({"alg":")") + alg + R"(","typ":"JWT"})" : "");
        mox_free(jwt);
    }
}

// An entry of a page: `name` goes out as plain text when it is UTF-8 and
// base64url otherwise, as a gateway sends it.
std::string entry(const std::string &name, int mode = 0x81a4)
{
    std::string key = p::utf8_valid(name) ? "name" : "name_b64";
    std::string value = key == "name" ? name : p::base64url_encode(name);
    return "{\"" + key + "\":\"" + value + "\",\"mode\":" + std::to_string(mode) + "}";
}

std::string page(const std::string &entries, const char *rest = R"("listing":"7","more":false)")
{
    return "{\"error\":0,\"entries\":[" + entries + "]," + rest + "}";
}

// Reads every entry; the names in order, or the failing code.
int read_all(ar_io_dir *d, std::vector<std::string> &names)
{
    ar_io_dir_entry *cur = nullptr;
    int rc = d->ops->read_first(d, nullptr, &cur, 0);
    for (; rc > 0; rc = d->ops->read_next(d, cur, 0))
        names.emplace_back(cur->name);
    if (cur)
        d->ops->release_entry(d, cur);
    return rc;
}

TEST(EmberDir, WalksAndReadsPages)
{
    // Many coded names on one page: each must stay where its cursor saw it
    // while the rest of the page is decoded.
    std::string coded, mixed = entry("a") + "," + entry("\xff") + "," + entry("c\xc3\x28");
    std::vector<std::string> want_coded, many;
    for (int i = 0; i < 2345; i++) // two full pages and a part
        many.push_back("f" + std::to_string(100000 + i));
    for (int i = 0; i < 40; i++) {
        want_coded.push_back("\xfe");
        want_coded.back() += std::to_string(i);
        coded.append(i ? "," : "").append(entry(want_coded.back()));
    }
    const struct {
        const char *what;
        std::string body; // of the first page of "/acc", when not empty
        int rc;
        std::vector<std::string> names{};
        const char *path = "/acc";
    } rows[] = {
        {"the root", "", 0, {"acc"}, "/"},
        {"a name that is no UTF-8", "", 0, {"x\xc3\x28y"}, "/acc/d\xc3\x28"},
        {"a file", "", -MOX_ENOTDIR, {}, "/acc/f"},
        {"nothing", "", -MOX_ENOENT, {}, "/acc/gone"},
        {"plain and coded names", page(mixed), 0, {"a", "\xff", "c\xc3\x28"}},
        {"forty coded names", page(coded), 0, want_coded},
        {"an empty page", page(""), 0},
        {"both forms of a name", page(R"({"name":"a","name_b64":"_w","mode":1})"), -60},
        {"a name that is no text", page(R"({"name":7,"mode":33188})"), -60},
        {"a coded name that is UTF-8", page(R"({"name_b64":"YQ","mode":33188})"), -60},
        {"a coded name that is no base64url", page(R"({"name_b64":"*","mode":1})"), -60},
        {"no mode", page(R"({"name":"a"})"), -60},
        {"a mode that is text", page(R"({"name":"a","mode":"1"})"), -60},
        {"no name", page(R"({"mode":33188})"), -60},
        {"no more", page(entry("a"), R"("listing":"7")"), -60},
        {"entries that are no list", R"({"error":0,"entries":{},"listing":"7","more":false})", -60},
        {"a page the gateway fails", R"({"error":80})", -MOX_EIO},
        {"many pages", "", 0, many, "/acc/many"},
    };
    Sim sim;
    sim.mkdir("/acc/many");
    for (const std::string &name : many)
        sim.write("/acc/many/" + name, "");
    sim.mkdir("/acc/d\xc3\x28");
    sim.write("/acc/d\xc3\x28/x\xc3\x28y");
    sim.write("/acc/f");
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        if (!row.body.empty())
            sim.fault(json::serialize(json::object{
                {"op", p::op_dir_list}, {"path", "/acc"}, {"count", 1}, {"body", row.body}}));
        std::vector<std::string> names;
        run_in_coroutine([&] {
            ember_client *c = cert_client(sim.addr(), "site-ec.pem");
            ar_io_dir *root = nullptr, *d = nullptr; // opened as a tree walk starts
            ASSERT_EQ(ar_io_open_ember_dir_cl(c, "/", &root, 0), 0);
            int rc = root->ops->open_child(root, row.path + 1, &d, 0);
            ar_io_dir_put(root);
            if (rc == 0) {
                rc = read_all(d, names);
                ar_io_dir_put(d);
            }
            EXPECT_EQ(rc, row.rc);
            ember_client_put(c);
        });
        EXPECT_EQ(names, row.names);
    }
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
};

// Cancels the call's context after `ms`: the cancelling rows, and a bound on
// a client that ignores its deadline. Woken early, it does nothing.
struct Watchdog {
    mox_context *ctx;
    int32_t ms;
};

enum class Peer { sim, silent, full, none };
enum class Call { get, set, open, flag }; // all but get go on a kept-alive connection

struct Row {
    const char *what;
    int rc;
    std::string fault{}; // on the simulator; then the handle works again
    Call call = Call::get;
    Peer peer = Peer::sim;
    const char *host = "127.0.0.1", *cert = "server"; // the simulator's, on IPv6 for "[::1]"
    const char *pem = "site-ec.pem"; // the client's: null for none, "token" for a JWT
    int protos = 0;
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
const std::string kDelay = once(R"("delay_ms":4000)"), kOpenLost = once(kLost, p::op_file_open),
                  kSetLost = once(kLost, p::op_secret_set),
                  kSetLostTwice = once(kLost, p::op_secret_set, 2),
                  kIdleClose = once(R"("close_after":true)", p::op_file_state),
                  kLongName = std::string(64, 'a') + ".invalid";

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
        {.what = "open lost", .rc = -ECONNRESET, .fault = kOpenLost, .call = Call::open},
        {.what = "set lost", .rc = 0, .fault = kSetLost, .call = Call::set},
        {.what = "set lost twice", .rc = -ECONNRESET, .fault = kSetLostTwice, .call = Call::set},
        {.what = "closed while idle", .rc = 0, .fault = kIdleClose, .call = Call::flag},
        {.what = "nothing listens", .rc = -ECONNREFUSED, .peer = Peer::none, .host = "127.0.0.1:1"},
        {.what = "IPv6 loopback", .rc = -MOX_ENOENT, .host = "[::1]", .cert = "server-names"},
        {.what = "host name", .rc = -MOX_ENOENT, .host = "localhost", .cert = "server-names"},
        {.what = "host name not in the certificate", .rc = -MOX_EAUTH, .host = "localhost"},
        {.what = "address not in the certificate", .rc = -MOX_EAUTH, .cert = "server-names"},
        // A label over 63 bytes fails in the resolver: no query leaves.
        {.what = "name that does not resolve", .rc = -EHOSTUNREACH, .host = kLongName.c_str()},
        {.what = "gateway of an unknown CA", .rc = -MOX_EAUTH, .cert = "stranger-server"},
        {.what = "client of an unknown CA", .rc = -MOX_EAUTH, .pem = "untrusted.pem"},
        {.what = "no credentials", .rc = -MOX_EAUTH, .pem = nullptr},
        {.what = "a token on TLS 1.2", .rc = -MOX_ENOENT, .pem = "token", .protos = 1},
        {.what = "TLS 1.3", .rc = -MOX_ENOENT, .protos = 2},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        std::optional<Sim> sim;
        std::optional<SilentListener> silent;
        std::string addr = r.host, pem = r.pem ? r.pem : "";
        if (r.peer == Peer::sim) {
            const char *listen = r.host[0] == '[' ? "[::1]:0" : "127.0.0.1:0";
            sim.emplace("dc-a", std::vector<std::string>{"--listen", listen}, r.cert);
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
            ember_client *c = pem == "token" ? jwt_client(addr, "site-rsa.pem", 15)
                              : r.pem        ? cert_client(addr, pem)
                                             : ember_client_alloc();
            ember_client_set_host(c, addr.c_str());
            if (r.protos)
                ember_client_set_allowed_protos(c, r.protos);
            char *s = nullptr;
            int32_t idle = 200; // long enough for a closing gateway's close to arrive
            if (r.call != Call::get) {
                EXPECT_EQ(ember_file_get_state(c, "/acc/f", &s), 0);
                mox_free(std::exchange(s, nullptr));
                mox_co_wait_timeout(&idle);
            }
            Watchdog w{mox_context_alloc(), r.cancel};
            if (r.ms)
                mox_context_set_timeout(w.ctx, r.ms);
            mox_co *dog = mox_co_create(
                nullptr,
                [](mox_co *, void *arg) -> int32_t {
                    auto *w = static_cast<Watchdog *>(arg);
                    if (mox_co_wait_timeout(&w->ms) != 0)
                        mox_context_cancel(w->ctx);
                    return 0;
                },
                &w);
            mox_co_set_ctx(w.ctx);
            ember_file *f = nullptr;
            EXPECT_EQ(r.call == Call::open   ? ember_file_open(c, &f, "/acc/f", 0)
                      : r.call == Call::set  ? ember_set_trust_secret(c, "acc", 1, "")
                      : r.call == Call::flag ? ember_account_pull_set_ondemand_only(c, "acc", 1)
                                             : ember_get_trust_secret(c, "acc", 1, &s),
                      r.rc);
            EXPECT_EQ(s, nullptr);
            if (r.ms) {
                EXPECT_EQ(ember_get_trust_secret(c, "acc", 1, &s), -ETIMEDOUT) << "deadline gone";
            }
            mox_co_set_ctx(nullptr);
            mox_co_wakeup(dog);
            mox_co_join(dog);
            mox_context_put(w.ctx);
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
