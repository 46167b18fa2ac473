// The simulator's listener, spoken to byte by byte over loopback.
#include "gateway_sim.h"

#include <arpa/inet.h>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <list>
#include <openssl/ssl.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

namespace
{

// A client connection whose every read and write gives up after 5 s.
struct Conn {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    SSL_CTX *ctx = SSL_CTX_new(TLS_client_method());
    SSL *ssl = nullptr;
    bool ok;

    Conn(int port, bool tls, const std::string &pem = "")
    {
        struct timeval tv = {5, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        struct sockaddr_in sa = {
            AF_INET, htons(static_cast<uint16_t>(port)), {htonl(0x7f000001)}, {}};
        ok = connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0;
        std::string file = pem.empty() ? "" : ember_test::pki_file(pem);
        if (!pem.empty())
            ok = ok && SSL_CTX_use_certificate_file(ctx, file.c_str(), SSL_FILETYPE_PEM) == 1 &&
                 SSL_CTX_use_PrivateKey_file(ctx, file.c_str(), SSL_FILETYPE_PEM) == 1;
        if (ok && tls) {
            ssl = SSL_new(ctx);
            SSL_set_fd(ssl, fd);
            ok = SSL_connect(ssl) == 1;
        }
    }
    ~Conn()
    {
        SSL_free(ssl);
        SSL_CTX_free(ctx);
        close(fd);
    }
    // Reads up to the end of an answer's head: the text, short on a failure.
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
        int n;
        do
            errno = 0;
        while ((n = ssl ? SSL_read(ssl, buf, sizeof buf) : static_cast<int>(recv(fd, buf, 1, 0))) >
               0);
        return errno != EAGAIN;
    }
};

std::string post(const char *target, const std::string &headers, const std::string &body = "")
{
    return std::string("POST ") + target + " HTTP/1.1\r\nConnection: close\r\n" + headers +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

TEST(SimServer, AnswersBeforeClosing)
{
    ember_test::Sim sim;
    sim.mkdir("/acc");
    sim.fault(R"({"op":"/v1/dir/stat","error":9,"count":1})");
    std::string stat = post("/v1/dir/stat", "", R"({"path":"/acc"})");
    struct {
        const char *pem;
        std::string sent;
        const char *status, *then; // `then` goes after the first answer
    } rows[] = {
        {"", "GET /v1/test/dump HTTP/1.1\r\n\r\n", "HTTP/1.1 405", nullptr},
        {"", "POST / HTTP/1.1\r\nContent-Length: 1048577\r\n\r\n", "HTTP/1.1 413", nullptr},
        {"", post("/", "X-Pad: " + std::string(9000, 'p') + "\r\n"), "HTTP/1.1 431", nullptr},
        {"", "POST / HTTP/1.1\r\nContent-Length: x\r\n\r\n", "HTTP/1.1 400", nullptr},
        {"",
         "POST /v1/test/dump HTTP/1.1\r\nConnection: close\r\nExpect: 100-continue\r\n"
         "Content-Length: 2\r\n\r\n",
         "HTTP/1.1 100 Continue\r\n\r\n", "{}"},
        // A counted fault is left to the first request that passes authentication.
        {"", stat, "HTTP/1.1 401", nullptr},
        {"web-ec.pem", stat, "HTTP/1.1 404", nullptr},
        {"web-ec.pem", stat, "HTTP/1.1 200", nullptr},
    };
    for (auto &r : rows) {
        Conn c(sim.port(), true, r.pem);
        ASSERT_TRUE(c.ok);
        std::string got = c.head(r.sent);
        EXPECT_EQ(got.rfind(r.status, 0), 0u) << r.sent.substr(0, 50) << "\ngot: " << got;
        EXPECT_EQ(got.find("Allow: POST\r\n") != std::string::npos, got.find(" 405 ") == 8) << got;
        if (r.then) {
            EXPECT_EQ(c.head(r.then).rfind("HTTP/1.1 200", 0), 0u);
        }
        EXPECT_TRUE(c.closed()) << "still open after " << r.status;
    }
}

TEST(SimServer, SilentConnectionsAreClosed)
{
    for (bool tls : {false, true}) {
        const char *option = tls ? "--idle-timeout" : "--handshake-timeout";
        ember_test::Sim sim("dc-a", {option, "300"});
        Conn c(sim.port(), tls);
        ASSERT_TRUE(c.ok) << option;
        EXPECT_TRUE(c.closed()) << "no close within 5 s with " << option << " 300";
    }
}

TEST(SimServer, PausesWhileOutOfDescriptors)
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
    auto cpu_ns = [&] {
        uint64_t ns = 0;
        std::ifstream(proc + "/schedstat") >> ns;
        return ns;
    };
    struct rlimit lim = {open_files() + 2, open_files() + 2};
    ASSERT_EQ(prlimit(sim.pid(), RLIMIT_NOFILE, &lim, nullptr), 0);
    {
        std::list<Conn> conns; // two taken, the others queued
        for (int i = 0; i < 5; i++)
            conns.emplace_back(sim.port(), false);
        for (int i = 0; i < 50 && open_files() < lim.rlim_cur; i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        ASSERT_EQ(open_files(), lim.rlim_cur) << "the simulator did not run out of descriptors";
        uint64_t before = cpu_ns();
        std::this_thread::sleep_for(std::chrono::seconds(1));
        EXPECT_LT(cpu_ns() - before, 250000000u) << "the simulator spins without descriptors";
    }
    EXPECT_NE(sim.dump(), "") << "the simulator does not serve once descriptors are free";
}

} // namespace
