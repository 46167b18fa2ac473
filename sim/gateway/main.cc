// tarn-gateway-sim: a gateway that serves the gateway protocol over TLS
// with real state, for tests and benchmarks on loopback.
#include "ember/protocol.hpp"
#include "server.h"

#include <cstdio>
#include <cstdlib>
#include <getopt.h>
#include <openssl/pem.h>
#include <signal.h>
#include <string>

namespace
{

const char usage[] =
    "usage: tarn-gateway-sim --listen ADDR --cert PEM --key PEM --uid UID --data DIR\n"
    "                        [--client-ca PEM] [--jwt-key PEM]... [--peer UID=ADDR]...\n"
    "                        [--peer-timeout MS] [--pull-on-configure]\n"
    "                        [--handshake-timeout MS] [--idle-timeout MS] [--max-connections N]\n";

// A public key from a PEM certificate or public key file.
EVP_PKEY *load_public_key(const char *path)
{
    FILE *f = fopen(path, "r");
    if (!f)
        return nullptr;
    EVP_PKEY *key = nullptr;
    if (X509 *cert = PEM_read_X509(f, nullptr, nullptr, nullptr)) {
        key = X509_get_pubkey(cert);
        X509_free(cert);
    } else {
        rewind(f);
        key = PEM_read_PUBKEY(f, nullptr, nullptr, nullptr);
    }
    fclose(f);
    return key;
}

[[noreturn]] void die(const char *what, const char *arg)
{
    fprintf(stderr, "tarn-gateway-sim: %s '%s'\n", what, arg);
    exit(2);
}

// A number from `lo` to `hi`, or the end of the program.
long number(const char *arg, long lo, long hi)
{
    char *end = nullptr;
    long n = strtol(arg, &end, 10);
    if (!*arg || *end || n < lo || n > hi) {
        fprintf(stderr, "tarn-gateway-sim: expected a number from %ld to %ld, got '%s'\n", lo, hi,
                arg);
        exit(2);
    }
    return n;
}

struct options {
    std::string listen, cert, key, client_ca;
};

void parse(int argc, char **argv, gwsim::server &srv, options &opt)
{
    static const struct option longopts[] = {{"listen", required_argument, nullptr, 'l'},
                                             {"cert", required_argument, nullptr, 'c'},
                                             {"key", required_argument, nullptr, 'k'},
                                             {"uid", required_argument, nullptr, 'u'},
                                             {"data", required_argument, nullptr, 'd'},
                                             {"client-ca", required_argument, nullptr, 'a'},
                                             {"jwt-key", required_argument, nullptr, 'j'},
                                             {"peer", required_argument, nullptr, 'p'},
                                             {"peer-timeout", required_argument, nullptr, 't'},
                                             {"pull-on-configure", no_argument, nullptr, 'P'},
                                             {"handshake-timeout", required_argument, nullptr, 'h'},
                                             {"idle-timeout", required_argument, nullptr, 'i'},
                                             {"max-connections", required_argument, nullptr, 'm'},
                                             {nullptr, 0, nullptr, 0}};
    int c;
    while ((c = getopt_long(argc, argv, "", longopts, nullptr)) != -1) {
        std::string v = optarg ? optarg : "";
        switch (c) {
        case 'l':
            opt.listen = v;
            break;
        case 'c':
            opt.cert = v;
            break;
        case 'k':
            opt.key = v;
            break;
        case 'u':
            srv.st.uid = v;
            break;
        case 'd':
            srv.st.root = v;
            break;
        case 'a':
            opt.client_ca = v;
            break;
        case 'j':
            if (EVP_PKEY *key = load_public_key(optarg))
                srv.st.jwt_keys.push_back(key);
            else
                die("no public key in", optarg);
            break;
        case 'p': {
            size_t eq = v.find('=');
            if (eq == std::string::npos)
                die("expected UID=ADDR, got", optarg);
            srv.st.peer_addrs[v.substr(0, eq)] = v.substr(eq + 1);
            break;
        }
        case 't':
            srv.peer_timeout = std::chrono::milliseconds(number(optarg, 1, 3600000));
            break;
        case 'h':
            srv.handshake_timeout = std::chrono::milliseconds(number(optarg, 1, 3600000));
            break;
        case 'i':
            srv.idle_timeout = std::chrono::milliseconds(number(optarg, 1, 3600000));
            break;
        case 'm':
            srv.max_connections = static_cast<size_t>(number(optarg, 1, 100000));
            break;
        case 'P':
            srv.st.pull_on_configure = true;
            break;
        default:
            fputs(usage, stderr);
            exit(2);
        }
    }
    if (opt.listen.empty() || opt.cert.empty() || opt.key.empty() || srv.st.uid.empty() ||
        srv.st.root.empty() || optind != argc) {
        fputs(usage, stderr);
        exit(2);
    }
}

void setup_tls(gwsim::server &srv, const options &opt)
{
    boost::system::error_code ec;
    srv.tls.use_certificate_chain_file(opt.cert, ec);
    if (ec)
        die("cannot use the certificate", opt.cert.c_str());
    srv.tls.use_private_key_file(opt.key, boost::asio::ssl::context::pem, ec);
    if (ec)
        die("cannot use the key", opt.key.c_str());
    if (!opt.client_ca.empty()) {
        srv.tls.load_verify_file(opt.client_ca, ec);
        if (ec)
            die("cannot use the client CA", opt.client_ca.c_str());
        // Clients without a certificate may still come with a JWT.
        srv.tls.set_verify_mode(boost::asio::ssl::verify_peer);
    }
}

} // namespace

int main(int argc, char **argv)
{
    signal(SIGPIPE, SIG_IGN);
    static gwsim::server srv; // lives as long as the detached sessions
    options opt;
    parse(argc, argv, srv, opt);
    setup_tls(srv, opt);
    // Port 0 asks the system for a free port.
    std::string listen = opt.listen, host;
    bool any_port = listen.size() > 2 && listen.compare(listen.size() - 2, 2, ":0") == 0;
    if (any_port)
        listen.resize(listen.size() - 2);
    uint16_t port;
    if (!ember_proto::parse_address(listen.c_str(), host, port))
        die("malformed address", opt.listen.c_str());
    if (any_port)
        port = 0;
    boost::asio::io_context io;
    boost::system::error_code ec;
    auto addr = boost::asio::ip::make_address(host, ec);
    if (ec)
        die("not an IP address", host.c_str());
    boost::asio::ip::tcp::acceptor acceptor(io);
    boost::asio::ip::tcp::endpoint ep(addr, port);
    acceptor.open(ep.protocol(), ec);
    if (!ec)
        acceptor.set_option(boost::asio::socket_base::reuse_address(true), ec);
    if (!ec)
        acceptor.bind(ep, ec);
    if (!ec)
        acceptor.listen(128, ec);
    if (ec)
        die("cannot listen on", opt.listen.c_str());
    port = acceptor.local_endpoint().port();
    srv.st.self_addr = (addr.is_v6() ? "[" + host + "]" : host) + ":" + std::to_string(port);
    printf("%u\n", port);
    fflush(stdout);
    gwsim::serve(srv, acceptor);
}
