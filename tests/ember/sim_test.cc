// The simulator's hardening, spoken to byte by byte over loopback: each row
// is one connection, what goes out on it and the answer's status.
#include "ember/protocol.hpp"
#include "gateway_sim.h"
#include "mox/mox.h"

#include <arpa/inet.h>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <list>
#include <openssl/ssl.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

namespace p = ember_proto;
using ember_test::pki_file;

namespace
{

// A connection on loopback: TLS with the certificate `pem` ("" for none),
// or plain TCP when `pem` is null. Reads give up after 5 s.
struct Conn {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    SSL_CTX *ctx = SSL_CTX_new(TLS_client_method());
    SSL *ssl = SSL_new(ctx);
    bool ok;

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
        char buf[4096];
        int n = SSL_write(ssl, send.data(), static_cast<int>(send.size()));
        while (n > 0 && got.find("\r\n\r\n") == std::string::npos)
            if ((n = SSL_read(ssl, buf, sizeof buf)) > 0)
                got.append(buf, static_cast<size_t>(n));
        return got;
    }
    // True when the simulator closes the connection within 5 s.
    bool closed()
    {
        char buf[4096];
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
    sig.resize(len);
    return "Authorization: Bearer " + in + "." + p::base64url_encode(sig) + "\r\n";
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
        if (r.then) {
            EXPECT_EQ(c.head(r.then).substr(0, 12), "HTTP/1.1 200");
        }
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
        std::list<Conn> conns; // two taken, the others queued
        for (int i = 0; i < 5; i++)
            conns.emplace_back(sim.port(), nullptr);
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
