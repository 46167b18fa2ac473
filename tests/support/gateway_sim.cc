// Test PKI and simulator processes.
#include "gateway_sim.h"

#include "mox/alloc.h"
#include "mox/misc.h"
#include "sync_client.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ember_test
{

std::string pki_file(const std::string &name)
{
    // CTest makes one PKI per run (the test_pki fixture) and names it in
    // TARN_TEST_PKI; a binary run by hand makes its own, removed when the
    // process ends: private keys do not outlive the run.
    static struct Pki {
        std::string dir, own;
        Pki()
        {
            const char *given = getenv("TARN_TEST_PKI");
            struct stat sb;
            if (given && stat((std::string(given) + "/ca.pem").c_str(), &sb) == 0) {
                dir = given;
            } else {
                char tmpl[] = "/tmp/tarn-pki-XXXXXX";
                dir = own = mkdtemp(tmpl);
                if (system((std::string(TARN_MAKE_PKI) + " " + own).c_str()) != 0)
                    abort();
            }
            setenv("SSL_CERT_FILE", (dir + "/ca.pem").c_str(), 1);
        }
        ~Pki()
        {
            std::error_code ec;
            if (!own.empty())
                std::filesystem::remove_all(own, ec);
        }
    } pki;
    return pki.dir + "/" + name;
}

Sim::Sim(const std::string &uid, const std::vector<std::string> &extra, const std::string &cert)
    : uid_(uid)
{
    char tmpl[] = "/tmp/ember-sim-XXXXXX";
    data_ = mkdtemp(tmpl);
    std::vector<std::string> args = {TARN_GATEWAY_SIM, "--listen", "127.0.0.1:0", "--uid", uid,
                                     "--data",         data_};
    for (auto [opt, file] : {std::pair{"--cert", cert + ".crt"},
                             {"--key", cert + ".key"},
                             {"--client-ca", "ca.pem"},
                             {"--jwt-key", "site-rsa.crt"},
                             {"--jwt-key", "web-ec.crt"}})
        args.insert(args.end(), {opt, pki_file(file)});
    args.insert(args.end(), extra.begin(), extra.end());
    std::vector<char *> argv;
    for (auto &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    int fds[2];
    if (pipe(fds) != 0)
        abort();
    pid_ = fork();
    if (pid_ == 0) {
        dup2(fds[1], 1);
        close_range(3, ~0u, 0); // nothing of this process's leaks into the simulator
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(fds[1]);
    // The port line the sim prints, read for at most ten seconds.
    std::string line;
    char ch;
    struct pollfd p = {fds[0], POLLIN, 0};
    while (poll(&p, 1, 10000) == 1 && read(fds[0], &ch, 1) == 1 && ch != '\n')
        line.push_back(ch);
    close(fds[0]);
    port_ = atoi(line.c_str());
    EXPECT_GT(port_, 0) << "the simulator did not start";
}

Sim::~Sim()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    std::error_code ec;
    std::filesystem::remove_all(data_, ec);
    EXPECT_FALSE(ec) << "cannot remove " << data_;
}

void Sim::mkdir(const std::string &path) const
{
    std::error_code ec;
    std::filesystem::create_directories(data_ + path, ec);
    ASSERT_FALSE(ec) << data_ + path << ": " << ec.message();
}

void Sim::write(const std::string &path, const std::string &content) const
{
    std::ofstream(data_ + path) << content;
}

std::string Sim::post(const std::string &op, const std::string &body) const
{
    unsigned status = 0;
    std::string answer;
    int rc =
        gwsim::sync_post(addr(), op.c_str(), body, "", gwsim::peer_timeout_default, status, answer);
    return rc == 0 ? answer : "";
}

void Sim::fault(const std::string &json) const
{
    ASSERT_EQ(post("/v1/test/fault", json), "{\"error\":0}");
}

ember_client *cert_client(const std::string &addr, const std::string &pem)
{
    ember_client *c = ember_client_alloc();
    EXPECT_EQ(ember_client_set_host(c, addr.c_str()), 0);
    EXPECT_EQ(ember_client_load_auth_from_pem_file(c, pki_file(pem).c_str()), 0);
    return c;
}

ember_client *jwt_client(const std::string &addr, const std::string &pem, uint32_t mask,
                         const std::string &audience)
{
    EVP_PKEY *key = nullptr;
    EXPECT_EQ(mox_pkey_from_pem_file(pki_file(pem).c_str(), &key), 0);
    ember_jwt_grant grant = {"/", mask};
    ember_jwt_request req = {"tarn:self", "self", "self", "self", audience.c_str(), &grant, 1, key};
    char *jwt = ember_jwt_generate(&req);
    EVP_PKEY_free(key);
    EXPECT_NE(jwt, nullptr);
    ember_client *c = ember_client_alloc();
    EXPECT_EQ(ember_client_set_host(c, addr.c_str()), 0);
    EXPECT_EQ(ember_client_set_jwt(c, jwt ? jwt : ""), 0);
    mox_free(jwt);
    return c;
}

} // namespace ember_test
