// A test PKI (one per CTest run), and gateway simulators run as real
// processes on loopback.
#pragma once

#include "ember/ember.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace ember_test
{

// A file of the test PKI (see make_pki.sh); SSL_CERT_FILE points at its CA
// once this has been called.
std::string pki_file(const std::string &name);

// A running tarn-gateway-sim with its own data directory.
class Sim
{
  public:
    // Starts a sim with uid `uid`; `extra` are further options.
    explicit Sim(const std::string &uid = "dc-a", const std::vector<std::string> &extra = {},
                 const std::string &cert = "server");
    ~Sim();
    Sim(const Sim &) = delete;
    Sim &operator=(const Sim &) = delete;

    std::string addr() const { return "127.0.0.1:" + std::to_string(port_); }
    int port() const { return port_; }
    pid_t pid() const { return pid_; }
    const std::string &data() const { return data_; }
    const std::string &uid() const { return uid_; }
    // Makes a directory or a file (with `content`) under the data directory.
    void mkdir(const std::string &path) const;
    void write(const std::string &path, const std::string &content = "data") const;
    // POSTs a test endpoint with curl-free plain TLS from this process: the
    // answer body, "" on failure. Blocks for at most ten seconds; call
    // outside coroutines.
    std::string post(const std::string &op, const std::string &body) const;
    std::string dump() const { return post("/v1/test/dump", "{}"); }
    void fault(const std::string &json) const;

  private:
    std::string uid_, data_;
    pid_t pid_ = -1;
    int port_ = 0;
};

// A client with the certificate `pem` (a file of the PKI) bound to `addr`.
ember_client *cert_client(const std::string &addr, const std::string &pem);
// A client with a JWT signed by the key in `pem` for `audience`, with one
// grant on "/" of `mask`.
ember_client *jwt_client(const std::string &addr, const std::string &pem, uint32_t mask,
                         const std::string &audience = "self");

} // namespace ember_test
