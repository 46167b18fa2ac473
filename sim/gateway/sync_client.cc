// Blocking HTTPS requests from the simulator and its tests. Each connection
// runs its asynchronous steps on a private I/O context, so that one
// deadline bounds them all: blocking Asio sockets ignore SO_RCVTIMEO.
#include "sync_client.h"

#include "ember/protocol.hpp"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/json.hpp>
#include <map>
#include <mutex>
#include <openssl/x509v3.h>
#include <poll.h>
#include <vector>

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace p = ember_proto;
using tcp = asio::ip::tcp;
using clock_type = std::chrono::steady_clock;

namespace gwsim
{
namespace
{

// Starts one operation and runs the context until it completes. Past the
// deadline `cancel` aborts it and its handler is still awaited (it refers
// to this frame): 110. 80 for any other failure.
template <class Start, class Cancel>
int run_step(asio::io_context &io, clock_type::time_point deadline, Start start, Cancel cancel)
{
    boost::system::error_code ec;
    bool done = false;
    start([&ec, &done](boost::system::error_code e, auto &&...) {
        ec = e;
        done = true;
    });
    io.restart();
    io.run_until(deadline);
    if (!done) {
        cancel();
        io.restart();
        io.run();
        return p::err_timedout;
    }
    return ec ? p::err_io : 0;
}

// The server must present a certificate for the address we dialled.
void expect_name(SSL *ssl, const std::string &host)
{
    X509_VERIFY_PARAM *param = SSL_get0_param(ssl);
    if (X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str()) != 1) {
        X509_VERIFY_PARAM_set1_host(param, host.c_str(), 0);
        SSL_set_tlsext_host_name(ssl, host.c_str());
    }
}

asio::ssl::context client_context()
{
    asio::ssl::context ctx(asio::ssl::context::tls_client);
    boost::system::error_code ec;
    ctx.set_default_verify_paths(ec);
    ctx.set_verify_mode(asio::ssl::verify_peer);
    return ctx;
}

using request_type = http::request<http::string_body>;
using response_parser = http::response_parser<http::string_body>;

request_type make_request(const std::string &host, const char *target, const std::string &body,
                          const std::string &mac)
{
    request_type req{http::verb::post, target, 11};
    req.set(http::field::host, host);
    req.set(http::field::content_type, "application/json");
    if (!mac.empty())
        req.set(p::hdr_peer_mac, mac);
    req.body() = body;
    req.prepare_payload();
    return req;
}

// One TLS connection and the context that runs its steps. A step that
// fails or times out leaves it closed.
struct connection {
    asio::io_context io;
    beast::ssl_stream<beast::tcp_stream> stream;
    beast::flat_buffer buf; // what arrived past the last answer

    connection(asio::ssl::context &ctx, const std::string &host) : stream(io, ctx)
    {
        expect_name(stream.native_handle(), host);
    }
    beast::tcp_stream &sock() { return beast::get_lowest_layer(stream); }
    auto abort()
    {
        return [this] { sock().close(); };
    }

    int open(const std::string &host, uint16_t port, clock_type::time_point deadline)
    {
        tcp::resolver resolver(io);
        tcp::resolver::results_type endpoints;
        int rc = run_step(
            io, deadline,
            [&](auto h) {
                resolver.async_resolve(host, std::to_string(port),
                                       [&endpoints, h](boost::system::error_code e,
                                                       tcp::resolver::results_type r) mutable {
                                           endpoints = std::move(r);
                                           h(e);
                                       });
            },
            [&resolver] { resolver.cancel(); });
        if (rc == 0)
            rc = run_step(
                io, deadline, [&](auto h) { sock().async_connect(endpoints, h); }, abort());
        if (rc != 0)
            return rc;
        // Requests go out whole at once; Nagle would hold their tails back.
        boost::system::error_code ec;
        sock().socket().set_option(tcp::no_delay(true), ec);
        return run_step(
            io, deadline,
            [&](auto h) { stream.async_handshake(asio::ssl::stream_base::client, h); }, abort());
    }

    int write(request_type &req, clock_type::time_point deadline)
    {
        return run_step(
            io, deadline, [&](auto h) { http::async_write(stream, req, h); }, abort());
    }

    int read(response_parser &parser, clock_type::time_point deadline)
    {
        parser.body_limit(64u << 20);
        return run_step(
            io, deadline, [&](auto h) { http::async_read(stream, buf, parser, h); }, abort());
    }

    // An idle connection has nothing to read: anything there (the peer's
    // close, a reset) means it cannot carry another request.
    bool still_idle()
    {
        if (!sock().socket().is_open() || buf.size() != 0 || SSL_pending(stream.native_handle()))
            return false;
        struct pollfd pf = {sock().socket().native_handle(), POLLIN, 0};
        return ::poll(&pf, 1, 0) == 0;
    }
};

// Idle connections kept per peer address; more are closed when given back.
constexpr size_t idle_max = 8;

} // namespace

struct peer_pool::impl {
    asio::ssl::context ctx = client_context();
    std::mutex mu;
    std::map<std::string, std::vector<std::unique_ptr<connection>>> idle; // guarded by mu

    // An idle connection to `addr` that the peer has not closed, or null.
    std::unique_ptr<connection> take(const std::string &addr)
    {
        std::unique_ptr<connection> c;
        std::lock_guard<std::mutex> lock(mu);
        auto it = idle.find(addr);
        while (it != idle.end() && !it->second.empty()) {
            c = std::move(it->second.back());
            it->second.pop_back();
            if (c->still_idle())
                return c;
        }
        return nullptr;
    }

    void give(const std::string &addr, std::unique_ptr<connection> c)
    {
        std::lock_guard<std::mutex> lock(mu);
        auto &list = idle[addr];
        if (list.size() < idle_max)
            list.push_back(std::move(c));
    }
};

peer_pool::peer_pool() : impl_(std::make_unique<impl>()) {}

peer_pool::~peer_pool() = default;

int peer_pool::post(const std::string &addr, const char *target, const std::string &body,
                    const std::string &mac, std::chrono::milliseconds timeout, unsigned &status,
                    std::string &answer)
{
    std::string host;
    uint16_t port;
    if (!p::parse_address(addr.c_str(), host, port))
        return p::err_inval;
    auto deadline = clock_type::now() + timeout;
    request_type req = make_request(host, target, body, mac);
    std::unique_ptr<connection> conn = impl_->take(addr);
    // A failed write never delivered the whole request: it is safe to send
    // again on a fresh connection.
    int rc = conn ? conn->write(req, deadline) : p::err_io;
    if (rc == p::err_io) {
        conn = std::make_unique<connection>(impl_->ctx, host);
        rc = conn->open(host, port, deadline);
        if (rc == 0)
            rc = conn->write(req, deadline);
    }
    response_parser parser;
    if (rc == 0)
        rc = conn->read(parser, deadline);
    if (rc != 0)
        return rc;
    status = parser.get().result_int();
    // Bytes past the answer mean the peer and we disagree on the framing.
    bool reusable = parser.get().keep_alive() && conn->buf.size() == 0;
    answer = std::move(parser.get().body());
    if (reusable) {
        conn->buf.shrink_to_fit(); // an idle connection holds no large answer's buffer
        impl_->give(addr, std::move(conn));
    }
    return 0;
}

// A pool of its own holds no idle connection: the request goes on a fresh
// one, which ends with the pool.
int sync_post(const std::string &addr, const char *target, const std::string &body,
              const std::string &mac, std::chrono::milliseconds timeout, unsigned &status,
              std::string &answer)
{
    return peer_pool().post(addr, target, body, mac, timeout, status, answer);
}

int send_peer(peer_pool &pool, const std::string &addr, const char *target, const std::string &body,
              const std::string &mac, std::chrono::milliseconds timeout, std::string &answer)
{
    unsigned status = 0;
    if (int rc = pool.post(addr, target, body, mac, timeout, status, answer); rc != 0)
        return rc;
    boost::system::error_code ec;
    boost::json::value v = boost::json::parse(answer, ec);
    const boost::json::object *o = (!ec && v.is_object()) ? &v.as_object() : nullptr;
    if (o && o->contains("error") && o->at("error").is_int64())
        return static_cast<int>(o->at("error").as_int64());
    return p::err_for_status(status);
}

} // namespace gwsim
