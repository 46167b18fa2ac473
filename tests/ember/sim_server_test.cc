// The simulator's listener, spoken to byte by byte over loopback.
#include "gateway_sim.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <dirent.h>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

using ember_test::Sim;

namespace
{

// A connection whose every read and write gives up after five seconds.
class Conn
{
  public:
    Conn(int port, bool tls, const std::string &pem = "")
    {
        fd_ = socket(AF_INET, SOCK_STREAM, 0);
        struct timeval tv = {5, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        struct sockaddr_in sa = {};
        sa.sin_family = AF_INET;
        sa.sin_port = htons(static_cast<uint16_t>(port));
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ok_ = connect(fd_, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0;
        if (!ok_ || !tls)
            return;
        ctx_ = SSL_CTX_new(TLS_client_method());
        if (!pem.empty()) {
            std::string file = ember_test::pki_file(pem);
            SSL_CTX_use_certificate_file(ctx_, file.c_str(), SSL_FILETYPE_PEM);
            SSL_CTX_use_PrivateKey_file(ctx_, file.c_str(), SSL_FILETYPE_PEM);
        }
        ssl_ = SSL_new(ctx_);
        SSL_set_fd(ssl_, fd_);
        ok_ = SSL_connect(ssl_) == 1;
    }
    ~Conn()
    {
        SSL_free(ssl_);
        SSL_CTX_free(ctx_);
        close(fd_);
    }
    bool ok() const { return ok_; }
    bool send(const std::string &text)
    {
        return SSL_write(ssl_, text.data(), static_cast<int>(text.size())) ==
               static_cast<int>(text.size());
    }
    // What arrives until the end of an answer's head; less on a timeout.
    std::string head()
    {
        std::string got;
        char buf[4096];
        while (got.find("\r\n\r\n") == std::string::npos) {
            int n = SSL_read(ssl_, buf, sizeof buf);
            if (n <= 0)
                break;
            got.append(buf, static_cast<size_t>(n));
        }
        return got;
    }
    // True when the other side closes the connection within five seconds.
    bool closed()
    {
        char buf[4096];
        for (;;) {
            errno = 0;
            int n = ssl_ ? SSL_read(ssl_, buf, sizeof buf) : static_cast<int>(recv(fd_, buf, 1, 0));
            if (n <= 0)
                return errno != EAGAIN && errno != EWOULDBLOCK;
        }
    }

  private:
    int fd_ = -1;
    bool ok_ = false;
    SSL_CTX *ctx_ = nullptr;
    SSL *ssl_ = nullptr;
};

std::string post_head(const std::string &target, size_t length, const std::string &extra = "")
{
    return "POST " + target + " HTTP/1.1\r\nHost: h\r\nContent-Length: " + std::to_string(length) +
           "\r\n" + extra + "\r\n";
}

TEST(SimServer, RefusesWhatItWillNotRead)
{
    Sim sim;
    struct {
        std::string sent;
        const char *status;
        const char *then; // sent after the first answer, or null when the connection closes
        const char *then_status;
    } rows[] = {
        {"GET /v1/test/dump HTTP/1.1\r\nHost: h\r\n\r\n", "HTTP/1.1 405", nullptr, nullptr},
        {post_head("/v1/test/dump", 1024 * 1024 + 1), "HTTP/1.1 413", nullptr, nullptr},
        {post_head("/v1/test/dump", 2, "X-Pad: " + std::string(9000, 'p') + "\r\n"), "HTTP/1.1 431",
         nullptr, nullptr},
        {"POST /v1/test/dump HTTP/1.1\r\nContent-Length: x\r\n\r\n", "HTTP/1.1 400", nullptr,
         nullptr},
        {post_head("/v1/test/dump", 2, "Expect: 100-continue\r\n"), "HTTP/1.1 100 Continue", "{}",
         "HTTP/1.1 200"},
    };
    for (auto &r : rows) {
        Conn c(sim.port(), true);
        ASSERT_TRUE(c.ok());
        ASSERT_TRUE(c.send(r.sent));
        std::string got = c.head();
        EXPECT_EQ(got.rfind(r.status, 0), 0u) << r.sent.substr(0, 40) << " got: " << got;
        bool allow = got.find("Allow: POST\r\n") != std::string::npos;
        EXPECT_EQ(allow, std::string(r.status) == "HTTP/1.1 405") << got;
        if (!r.then) {
            EXPECT_TRUE(c.closed()) << "the connection stayed open after " << r.status;
            continue;
        }
        ASSERT_TRUE(c.send(r.then));
        got = c.head();
        EXPECT_EQ(got.rfind(r.then_status, 0), 0u) << got;
    }
}

TEST(SimServer, SilentConnectionsAreClosed)
{
    struct {
        const char *option;
        bool handshake;
    } rows[] = {{"--handshake-timeout", false}, {"--idle-timeout", true}};
    for (auto &r : rows) {
        Sim sim("dc-a", {r.option, "300"});
        Conn c(sim.port(), r.handshake);
        ASSERT_TRUE(c.ok()) << r.option;
        EXPECT_TRUE(c.closed()) << "no close within five seconds with " << r.option << " 300";
    }
}

// A counted fault stays for the request it was meant for.
TEST(SimServer, FaultsAreTakenAfterAuthentication)
{
    Sim sim;
    sim.mkdir("/acc");
    sim.fault(R"({"op":"/v1/dir/stat","error":9,"count":1})");
    struct {
        const char *pem;
        const char *status;
    } rows[] = {
        {"", "HTTP/1.1 401"}, {"web-ec.pem", "HTTP/1.1 404"}, {"web-ec.pem", "HTTP/1.1 200"}};
    std::string body = R"({"path":"/acc"})";
    for (auto &r : rows) {
        Conn c(sim.port(), true, r.pem);
        ASSERT_TRUE(c.ok());
        ASSERT_TRUE(c.send(post_head("/v1/dir/stat", body.size()) + body));
        std::string got = c.head();
        EXPECT_EQ(got.rfind(r.status, 0), 0u) << r.pem << " got: " << got;
    }
}

// The descriptors of `pid` numbered below `limit`: the ones that count
// against that limit.
rlim_t open_files(pid_t pid, rlim_t limit, rlim_t *highest = nullptr)
{
    rlim_t n = 0;
    if (DIR *d = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str())) {
        while (struct dirent *e = readdir(d)) {
            rlim_t fd = strtoul(e->d_name, nullptr, 10);
            n += e->d_name[0] != '.' && fd < limit;
            if (highest && e->d_name[0] != '.')
                *highest = std::max(*highest, fd);
        }
        closedir(d);
    }
    return n;
}

// User and system time in clock ticks.
long cpu_ticks(pid_t pid)
{
    std::ifstream f("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    std::istringstream rest(text.substr(text.rfind(')') + 2));
    std::string skip;
    for (int i = 0; i < 11; i++) // state to cmajflt
        rest >> skip;
    long utime = 0, stime = 0;
    rest >> utime >> stime;
    return utime + stime;
}

TEST(SimServer, BacksOffWhenOutOfDescriptors)
{
    Sim sim;
    rlim_t highest = 0;
    open_files(sim.pid(), RLIM_INFINITY, &highest);
    rlim_t limit = highest + 3;
    struct rlimit lim = {limit, limit};
    ASSERT_EQ(prlimit(sim.pid(), RLIMIT_NOFILE, &lim, nullptr), 0);
    {
        std::vector<std::unique_ptr<Conn>> conns;
        for (int i = 0; i < 6; i++)
            conns.push_back(std::make_unique<Conn>(sim.port(), false));
        for (int i = 0; i < 50 && open_files(sim.pid(), limit) < limit; i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        ASSERT_EQ(open_files(sim.pid(), limit), limit)
            << "the simulator did not run out of descriptors";
        long before = cpu_ticks(sim.pid());
        std::this_thread::sleep_for(std::chrono::seconds(1));
        EXPECT_LT(cpu_ticks(sim.pid()) - before, sysconf(_SC_CLK_TCK) / 4)
            << "the simulator spins while out of descriptors";
    }
    EXPECT_NE(sim.dump(), "") << "the simulator does not serve once descriptors are free";
}

} // namespace
