// The client library: what it checks before any call, the tokens it signs,
// directory handles, and calls under deadlines, cancellation, lost
// connections, unusable answers and refused credentials.
#include "co_runner.h"
#include "ember/ar_io.h"
#include "ember/ember.h"
#include "ember/protocol.hpp"
#include "gateway_sim.h"
#include "mox/mox.h"

#include <arpa/inet.h>
#include <boost/json.hpp>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace json = boost::json;
namespace p = ember_proto;
using namespace ember_test;
using tarn_test::run_in_coroutine;

namespace
{

// What the handle's setters take and refuse, and the tokens it signs.
TEST(EmberClient, SettersAndTokens)
{
    ember_client *web = cert_client("127.0.0.1", "web-ec.pem");
    ember_client *site = cert_client("127.0.0.1", "site-ec.pem");
    ember_client *jwt = jwt_client("127.0.0.1", "site-rsa.pem", 11);
    for (const char *addr : {"127.0.0.1", "127.0.0.1:1", "gw-1.example", "[::1]", "[::1]:8443"})
        EXPECT_EQ(ember_client_set_host(site, addr), 0) << addr;
    for (const char *addr : {"", ":80", "host:", "host:0", "host:65536", "host:8x", "::1", "[::1",
                             "[::1]x", "[]:1", "a b", "[127.0.0.1]", "host:1:2"})
        EXPECT_EQ(ember_client_set_host(site, addr), -30) << addr;
    // A file that cannot be read, and a certificate without its key.
    EXPECT_EQ(
        std::make_tuple(
            ember_client_is_web(web), ember_client_is_web(site), ember_client_is_jwt(site),
            ember_client_is_jwt(jwt), ember_client_load_auth_from_pem_file(site, "/nonexistent"),
            ember_client_load_auth_from_pem_file(site, pki_file("ca.pem").c_str()),
            ember_client_set_jwt(site, "not-a-token"), ember_client_set_allowed_protos(site, 4)),
        std::make_tuple(1, 0, 0, 1, -MOX_ENOENT, -MOX_EMALFORMED, -MOX_EINVAL, -MOX_EINVAL));
    for (ember_client *c : {web, site, jwt})
        ember_client_put(c);
    // A token's header names the algorithm of the key; keys that no label
    // fits sign nothing (secp256k1 is 256 bits too, but not what ES256 names).
    EVP_PKEY *rsa = nullptr;
    ASSERT_EQ(mox_pkey_from_pem_file(pki_file("site-rsa.pem").c_str(), &rsa), 0);
    std::vector<EVP_PKEY *> keys = {rsa, EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"), nullptr};
    for (const char *curve : {"P-256", "P-384", "secp256k1"})
        keys.push_back(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", curve));
    std::string headers;
    for (EVP_PKEY *key : keys) {
        ember_jwt_request req = {"a", "b", "c", "d", "e", nullptr, 0, key};
        char *token = ember_jwt_generate(&req);
        std::string header;
        p::base64url_decode(token ? std::string_view(token, strcspn(token, ".")) : "", header);
        headers += header + ";";
        mox_free(token);
        EVP_PKEY_free(key);
    }
    EXPECT_EQ(headers, R"({"alg":"RS256","typ":"JWT"};;;{"alg":"ES256","typ":"JWT"};;;)");
}

// Names go as text exactly when the gateway's JSON parser takes them, and
// come back the same in either form.
TEST(EmberProtocol, Utf8CheckAgreesWithTheParser)
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

std::string page(const std::string &entries, const char *rest = R"("listing":"7","more":false)")
{
    return "{\"error\":0,\"entries\":[" + entries + "]," + rest + "}";
}

// Directories opened as a tree walk opens them: the names read, in order,
// or the failing code. A row with a body answers the first page of "/acc".
TEST(EmberDir, WalksAndReadsPages)
{
    // Many coded names on one page: each must stay where its cursor saw it
    // while the rest of the page is decoded.
    std::string mixed = R"({"name":"a","mode":1},{"name_b64":"_w","mode":1},)", coded;
    mixed += R"({"name_b64":"Y8Mo","mode":1})"; // "c\xc3\x28"
    std::vector<std::string> want_coded, many;
    for (int i = 0; i < 2345; i++) // two full pages and a part
        many.push_back("f" + std::to_string(100000 + i));
    for (int i = 0; i < 40; i++) {
        want_coded.push_back("\xfe" + std::to_string(i));
        coded += (i ? "," : "") + std::string(R"({"mode":1,"name_b64":")") +
                 p::base64url_encode(want_coded.back()) + "\"}";
    }
    const struct {
        const char *what;
        std::string body;
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
        {"no more", page(R"({"name":"a","mode":1})", R"("listing":"7")"), -60},
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
            ar_io_dir *root = nullptr, *d = nullptr;
            ar_io_dir_entry *cur = nullptr;
            ASSERT_EQ(ar_io_open_ember_dir_cl(c, "/", &root, 0), 0);
            int rc = root->ops->open_child(root, row.path + 1, &d, 0);
            ar_io_dir_put(root);
            if (rc == 0)
                rc = d->ops->read_first(d, nullptr, &cur, 0);
            for (; rc > 0; rc = d->ops->read_next(d, cur, 0))
                names.emplace_back(cur->name);
            if (cur)
                d->ops->release_entry(d, cur);
            EXPECT_EQ(rc, row.rc);
            ar_io_dir_put(d);
            ember_client_put(c);
        });
        EXPECT_EQ(names, row.names);
    }
}

enum class Call { get, set, open, flag }; // all but get go on a kept-alive connection
// The request a row's fault applies to, by call: for flag, the state call before it.
const char *const kFaultOn[] = {p::op_secret_get, p::op_secret_set, p::op_file_open,
                                p::op_file_state};

struct Row {
    const char *what;
    int rc;
    const char *fault = nullptr; // on the simulator, `times` times; then the handle works again
    int times = 1;
    Call call = Call::get;
    int signal = 0;    // sent to the simulator first: stopped, it answers nothing
    bool full = false; // stopped with its accept queue full, so that a connect never completes
    const char *host = "127.0.0.1", *cert = "server"; // the simulator's, on IPv6 for "[::1]"
    const char *pem = "site-ec.pem"; // the client's: null for none, "token" for a JWT
    int protos = 3;
    int32_t ms = 0;      // the call's deadline
    bool cancel = false; // after 200 ms
};

const char *const kDelay = R"("delay_ms":4000)";
const char *const kCut = R"("drop":true,"close_after":true)"; // carried out, unanswered
const char *const kClose = R"("close_after":true)";           // after the answer
const std::string kLongName = std::string(64, 'a') + ".invalid";

// One call in a context of its own. A lost kept-alive connection is replaced,
// once, only when the request cannot have been carried out twice: it is
// idempotent, or nothing of it went out.
TEST(EmberTransport, CallsEndWithTheirCause)
{
    const Row rows[] = {
        {.what = "connect past the deadline", .rc = -ETIMEDOUT, .full = true, .ms = 300},
        {.what = "handshake past the deadline", .rc = -ETIMEDOUT, .signal = SIGSTOP, .ms = 300},
        {.what = "answer past the deadline", .rc = -ETIMEDOUT, .fault = kDelay, .ms = 300},
        {.what = "cancelled while waiting", .rc = -ECANCELED, .fault = kDelay, .cancel = true},
        {.what = "not JSON", .rc = -MOX_EPROTO, .fault = R"("body":"<html>")"},
        {.what = "no secret field", .rc = -MOX_EPROTO, .fault = R"("body":"{\"error\":0}")"},
        {.what = "gateway error", .rc = -MOX_EIO, .fault = R"("error":80)"},
        {.what = "fresh connection lost", .rc = -ECONNRESET, .fault = R"("drop":true)"},
        {.what = "open lost", .rc = -ECONNRESET, .fault = kCut, .call = Call::open},
        {.what = "set lost", .rc = 0, .fault = kCut, .call = Call::set},
        {.what = "set lost twice", .rc = -ECONNRESET, .fault = kCut, .times = 2, .call = Call::set},
        {.what = "closed while idle", .rc = 0, .fault = kClose, .call = Call::flag},
        {.what = "nothing listens", .rc = -ECONNREFUSED, .signal = SIGKILL},
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
        const char *listen = r.host[0] == '[' ? "[::1]:0" : "127.0.0.1:0";
        Sim sim("dc-a", {"--listen", listen}, r.cert);
        sim.mkdir("/acc");
        sim.write("/acc/f");
        if (r.fault)
            sim.fault(std::string(R"({"op":")") + kFaultOn[static_cast<int>(r.call)] + "\"," +
                      r.fault + R"(,"count":)" + std::to_string(r.times) + "}");
        if (r.signal || r.full) {
            kill(sim.pid(), r.full ? SIGSTOP : r.signal);
            waitpid(sim.pid(), nullptr, WUNTRACED);
        }
        std::vector<int> fillers;
        sockaddr_in sa{
            AF_INET, htons(static_cast<uint16_t>(sim.port())), {htonl(INADDR_LOOPBACK)}, {}};
        for (int i = 0; r.full && i < 200; i++) { // its queue holds 128
            fillers.push_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
            (void)connect(fillers.back(), reinterpret_cast<sockaddr *>(&sa), sizeof sa);
        }
        std::string pem = r.pem ? r.pem : "", addr = r.host + (":" + std::to_string(sim.port()));
        run_in_coroutine([&] {
            ember_client *c = pem == "token" ? jwt_client(addr, "site-rsa.pem", 15)
                              : r.pem        ? cert_client(addr, pem)
                                             : ember_client_alloc();
            ember_client_set_host(c, addr.c_str());
            ember_client_set_allowed_protos(c, r.protos);
            char *s = nullptr;
            int32_t idle = 200; // long enough for a closing gateway's close to arrive
            if (r.call != Call::get) {
                EXPECT_EQ(ember_file_get_state(c, "/acc/f", &s), 0);
                mox_free(std::exchange(s, nullptr));
                mox_co_wait_timeout(&idle);
            }
            mox_context *ctx = mox_context_alloc();
            if (r.ms)
                mox_context_set_timeout(ctx, r.ms);
            auto cancel = [](mox_co *, void *ctx) -> int32_t {
                int32_t ms = 200;
                mox_co_wait_timeout(&ms);
                mox_context_cancel(static_cast<mox_context *>(ctx));
                return 0;
            };
            mox_co *dog = r.cancel ? mox_co_create(nullptr, cancel, ctx) : nullptr;
            mox_co_set_ctx(ctx);
            ember_file *f = nullptr;
            EXPECT_EQ(r.call == Call::open   ? ember_file_open(c, &f, "/acc/f", 0)
                      : r.call == Call::set  ? ember_set_trust_secret(c, "acc", 1, "")
                      : r.call == Call::flag ? ember_account_pull_set_ondemand_only(c, "acc", 1)
                                             : ember_get_trust_secret(c, "acc", 1, &s),
                      r.rc);
            if (r.ms) {
                EXPECT_EQ(ember_get_trust_secret(c, "acc", 1, &s), -ETIMEDOUT) << "deadline gone";
            }
            mox_co_set_ctx(nullptr);
            if (dog)
                mox_co_join(dog);
            mox_context_put(ctx);
            if (f)
                ember_file_close(f);
            if (r.fault) {
                EXPECT_EQ(ember_get_trust_secret(c, "acc", 1, &s), -MOX_ENOENT) << "handle reused";
            }
            ember_client_put(c);
        });
        for (int fd : fillers)
            close(fd);
    }
}

} // namespace
