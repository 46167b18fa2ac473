// The client library: what it checks before any call, the tokens it signs,
// directory handles, and calls under deadlines, cancellation, lost
// connections, unusable answers and refused credentials. Then the
// simulator's hardening, spoken to byte by byte over loopback.
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
#include <ctime>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
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
    std::vector<EVP_PKEY *> keys = {EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{1024}),
                                    EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"), nullptr};
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
// come back the same in either form; so do error codes sent as statuses.
TEST(EmberProtocol, NamesAndErrorsComeBackTheSame)
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
    std::string errors; // sent as a status alone; 9 and 29 share theirs with 8 and 30
    for (int code : {0, 1, 8, 9, 29, 30, 61, 70, 80, 5})
        errors += std::to_string(p::err_for_status(p::status_for_err(code))) + " ";
    EXPECT_EQ(errors, "0 1 8 8 30 30 61 70 80 80 ");
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
    Sim sim;
    sim.mkdir("/acc/many");
    for (int i = 0; i < 2345; i++) // two full pages and a part
        sim.write("/acc/many/" + many.emplace_back("f" + std::to_string(100000 + i)), "");
    for (int i = 0; i < 40; i++)
        coded += (i ? "," : "") + std::string(R"({"mode":1,"name_b64":")") +
                 p::base64url_encode(want_coded.emplace_back("\xfe" + std::to_string(i))) + "\"}";
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
    int signal = 0;    // to the simulator first: stopped it answers nothing, killed it refuses
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
        Sim sim("dc-a", {"--listen", r.host[0] == '[' ? "[::1]:0" : "127.0.0.1:0"}, r.cert);
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
        for (int i = 0; r.full && i < 200; i++) // the simulator listens with a queue of 128
            (void)connect(fillers.emplace_back(
                              socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)),
                          reinterpret_cast<sockaddr *>(&sa), sizeof sa);
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
            EXPECT_EQ(r.ms ? ember_get_trust_secret(c, "acc", 1, &s) : -ETIMEDOUT, -ETIMEDOUT)
                << "deadline gone";
            mox_co_set_ctx(nullptr);
            if (dog) // woken once it has ended: a wakeup then does nothing
                mox_co_wakeup(dog), mox_co_join(dog);
            mox_context_put(ctx);
            if (f)
                ember_file_close(f);
            EXPECT_EQ(r.fault ? ember_get_trust_secret(c, "acc", 1, &s) : -MOX_ENOENT, -MOX_ENOENT)
                << "handle reused";
            ember_client_put(c);
        });
        for (int fd : fillers)
            close(fd);
    }
}

// The simulator's hardening: each row is one connection, what goes out on
// it and the answer's status.

// A connection on loopback: TLS with the certificate `pem` ("" for none),
// or plain TCP when `pem` is null. Reads give up after 5 s.
struct Conn {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    SSL_CTX *ctx = SSL_CTX_new(TLS_client_method());
    SSL *ssl = SSL_new(ctx);
    bool ok;
    char buf[4096];

    Conn(int port, const char *pem)
    {
        timeval tv = {5, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        sockaddr_in sa = {AF_INET, htons(static_cast<uint16_t>(port)), {htonl(0x7f000001)}, {}};
        std::string file = pem && *pem ? pki_file(pem) : "";
        ok =
            connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0 &&
            SSL_set_fd(ssl, fd) == 1 &&
            (file.empty() || (SSL_use_certificate_file(ssl, file.c_str(), SSL_FILETYPE_PEM) == 1 &&
                              SSL_use_PrivateKey_file(ssl, file.c_str(), SSL_FILETYPE_PEM) == 1)) &&
            (!pem || SSL_connect(ssl) == 1);
    }
    ~Conn() { SSL_free(ssl), SSL_CTX_free(ctx), close(fd); }
    // Sends `send`, then reads up to the end of an answer's head: the text,
    // short on a failure.
    std::string head(const std::string &send)
    {
        std::string got;
        int n = SSL_write(ssl, send.data(), static_cast<int>(send.size()));
        while (n > 0 && got.find("\r\n\r\n") == std::string::npos)
            if ((n = SSL_read(ssl, buf, sizeof buf)) > 0)
                got.append(buf, static_cast<size_t>(n));
        return got;
    }
    // True when the simulator closes the connection within 5 s.
    bool closed()
    {
        errno = 0;
        while ((SSL_is_init_finished(ssl) ? SSL_read(ssl, buf, sizeof buf)
                                          : static_cast<int>(recv(fd, buf, 1, 0))) > 0)
            errno = 0;
        return errno != EAGAIN;
    }
};

std::string post(const char *target, const std::string &body, const std::string &headers = "")
{
    return std::string("POST ") + target + " HTTP/1.1\r\nConnection: close\r\n" + headers +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

// The header line of a token signed by a key the simulator trusts: `grant`
// its only grant, `more` further claims.
std::string bearer(const char *grant, const std::string &more = "",
                   const std::string &header = R"({"alg":"RS256","typ":"JWT"})")
{
    std::string claims = R"({"aud":"self","exp":)" + std::to_string(time(nullptr) + 60) +
                         R"(,"grants":[)" + grant + "]" + more + "}";
    std::string in = p::base64url_encode(header) + "." + p::base64url_encode(claims);
    std::string sig(512, '\0');
    size_t len = sig.size();
    EVP_PKEY *key = nullptr;
    EXPECT_EQ(mox_pkey_from_pem_file(pki_file("site-rsa.pem").c_str(), &key), 0);
    EVP_MD_CTX *md = EVP_MD_CTX_new();
    EVP_DigestSignInit(md, nullptr, EVP_sha256(), nullptr, key);
    EVP_DigestSign(md, reinterpret_cast<unsigned char *>(sig.data()), &len,
                   reinterpret_cast<const unsigned char *>(in.data()), in.size());
    EVP_MD_CTX_free(md);
    EVP_PKEY_free(key);
    return "Authorization: Bearer " + in + "." + p::base64url_encode(sig.substr(0, len)) + "\r\n";
}

// One simulator, one connection per row: what goes out on it, the status
// of the answer (0 for none), and what goes after that answer.
TEST(SimHardening, Table)
{
    ember_test::Sim sim("dc-a", {"--idle-timeout", "1000", "--handshake-timeout", "1000"});
    sim.mkdir("/acc");
    sim.write("/acc/a");
    sim.write("/acc/b");
    const std::string list = post(p::op_dir_list, R"({"path":"/acc","limit":1})");
    for (int i = 0; i < 66; i++) // listings 1 to 66: the 65th and 66th make room
        ASSERT_EQ(Conn(sim.port(), "web-ec.pem").head(list).substr(0, 12), "HTTP/1.1 200");
    sim.fault(R"({"op":"/v1/dir/stat","error":9,"count":1})");
    auto stat = [](auto auth) { return post(p::op_dir_stat, R"({"path":"/acc"})", auth); };
    const char *root = R"({"path":"/","mask":7})";
    const char *crit = R"({"alg":"RS256","typ":"JWT","crit":[]})";
    const std::string nbf = R"(,"nbf":)" + std::to_string(time(nullptr) + 60);
    std::string expect = post(p::op_test_dump, "{}", "Expect: 100-continue\r\n");
    expect.resize(expect.size() - 2); // the body goes after "100 Continue"
    struct {
        const char *name;
        std::string sent;
        int status;
        const char *pem = "web-ec.pem", *then = nullptr;
    } rows[] = {
        {"a counted fault waits for authentication", stat(""), 401, ""},
        {"then applies", stat(""), 404},
        {"a token", stat(bearer(root)), 200, ""},
        {"a mask beyond 32 bits", stat(bearer(R"({"path":"/","mask":4294967303})")), 401, ""},
        {"a token not valid yet", stat(bearer(root, nbf)), 401, ""},
        {"a crit header", stat(bearer(root, "", crit)), 401, ""},
        {"secret not text", post(p::op_secret_set, R"({"account":"acc","kind":1,"secret":7})"),
         400},
        {"account ..", post(p::op_secret_get, R"({"account":"..","kind":1})"), 400},
        {"account .",
         post(p::op_pull_configure, R"({"account":".","src":"h:1","secret":"s","flags":4})"), 400},
        {"NUL in a path", post(p::op_dir_stat, R"({"path":"/acc\u0000"})"), 400},
        {"fault the faults", post(p::op_test_fault, R"({"op":"/v1/test/fault","error":80})"), 400},
        {"a negative delay", post(p::op_test_fault, R"({"op":"/v1/dir/stat","delay_ms":-1})"), 400},
        {"the oldest listing made room",
         post(p::op_dir_list, R"({"path":"/acc","offset":1,"listing":"2"})"), 404},
        {"a newer one did not",
         post(p::op_dir_list, R"({"path":"/acc","offset":1,"listing":"10"})"), 200},
        {"a method other than POST", "GET /v1/test/dump HTTP/1.1\r\n\r\n", 405, ""},
        {"a body over 1 MiB", "POST / HTTP/1.1\r\nContent-Length: 1048577\r\n\r\n", 413, ""},
        {"a head over 8 KiB", post("/", "", "X-Pad: " + std::string(9000, 'p') + "\r\n"), 431, ""},
        {"Expect: 100-continue", expect, 100, "", "{}"},
        {"no TLS handshake", "", 0, nullptr},
        {"no request", "", 0, ""},
    };
    for (auto &r : rows) {
        SCOPED_TRACE(r.name);
        Conn c(sim.port(), r.pem);
        ASSERT_TRUE(c.ok);
        std::string got = r.sent.empty() ? "" : c.head(r.sent);
        EXPECT_EQ(got.substr(0, 12), r.status ? "HTTP/1.1 " + std::to_string(r.status) : "");
        EXPECT_EQ(got.find("Allow: POST\r\n") != std::string::npos, r.status == 405) << got;
        EXPECT_EQ(r.then ? c.head(r.then).substr(0, 12) : "", r.then ? "HTTP/1.1 200" : "");
        EXPECT_TRUE(c.closed()) << "still open";
    }
}

TEST(SimHardening, PausesWhileOutOfDescriptors)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's vptr check fails inside Asio's own cleanup once "
                    "descriptors run out";
#endif
    ember_test::Sim sim;
    std::string proc = "/proc/" + std::to_string(sim.pid());
    auto open_files = [&] {
        auto it = std::filesystem::directory_iterator(proc + "/fd");
        return static_cast<rlim_t>(std::distance(it, std::filesystem::directory_iterator()));
    };
    struct rlimit lim = {open_files() + 2, open_files() + 2};
    ASSERT_EQ(prlimit(sim.pid(), RLIMIT_NOFILE, &lim, nullptr), 0);
    {
        const int port = sim.port(); // two connections taken, the others queued
        Conn conns[] = {
            {port, nullptr}, {port, nullptr}, {port, nullptr}, {port, nullptr}, {port, nullptr}};
        for (int i = 0; i < 50 && open_files() < lim.rlim_cur; i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        ASSERT_EQ(open_files(), lim.rlim_cur) << "the simulator did not run out of descriptors";
        uint64_t before = 0, after = 0; // CPU time in ns
        std::ifstream(proc + "/schedstat") >> before;
        std::this_thread::sleep_for(std::chrono::seconds(1));
        std::ifstream(proc + "/schedstat") >> after;
        EXPECT_LT(after - before, 250000000u) << "the simulator spins without descriptors";
    }
    EXPECT_NE(sim.dump(), "") << "the simulator does not serve once descriptors are free";
}

} // namespace
