// Blocking HTTPS requests from the simulator and its tests. Each request
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
#include <openssl/x509v3.h>

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

} // namespace

int sync_post(const std::string &addr, const char *target, const std::string &body,
              const std::string &mac, std::chrono::milliseconds timeout, unsigned &status,
              std::string &answer)
{
    std::string host;
    uint16_t port;
    if (!p::parse_address(addr.c_str(), host, port))
        return p::err_inval;
    auto deadline = clock_type::now() + timeout;
    asio::io_context io;
    asio::ssl::context ctx(asio::ssl::context::tls_client);
    boost::system::error_code ec;
    ctx.set_default_verify_paths(ec);
    ctx.set_verify_mode(asio::ssl::verify_peer);
    beast::ssl_stream<beast::tcp_stream> stream(io, ctx);
    expect_name(stream.native_handle(), host);
    auto &sock = beast::get_lowest_layer(stream);
    auto abort = [&sock] { sock.close(); };

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
            io, deadline, [&](auto h) { sock.async_connect(endpoints, h); }, abort);
    if (rc == 0) {
        // Answers go out whole at once; Nagle would hold their tails back.
        sock.socket().set_option(tcp::no_delay(true), ec);
        rc = run_step(
            io, deadline,
            [&](auto h) { stream.async_handshake(asio::ssl::stream_base::client, h); }, abort);
    }
    http::request<http::string_body> req{http::verb::post, target, 11};
    req.set(http::field::host, host);
    req.set(http::field::content_type, "application/json");
    if (!mac.empty())
        req.set(p::hdr_peer_mac, mac);
    req.body() = body;
    req.prepare_payload();
    if (rc == 0)
        rc = run_step(
            io, deadline, [&](auto h) { http::async_write(stream, req, h); }, abort);
    beast::flat_buffer buf;
    http::response_parser<http::string_body> parser;
    parser.body_limit(64u << 20);
    if (rc == 0)
        rc = run_step(
            io, deadline, [&](auto h) { http::async_read(stream, buf, parser, h); }, abort);
    sock.close();
    if (rc != 0)
        return rc;
    status = parser.get().result_int();
    answer = std::move(parser.get().body());
    return 0;
}

int send_peer(const std::string &addr, const char *target, const std::string &body,
              const std::string &mac, std::chrono::milliseconds timeout, std::string &answer)
{
    unsigned status = 0;
    if (int rc = sync_post(addr, target, body, mac, timeout, status, answer); rc != 0)
        return rc;
    boost::system::error_code ec;
    boost::json::value v = boost::json::parse(answer, ec);
    const boost::json::object *o = (!ec && v.is_object()) ? &v.as_object() : nullptr;
    if (o && o->contains("error") && o->at("error").is_int64())
        return static_cast<int>(o->at("error").as_int64());
    return p::err_for_status(status);
}

} // namespace gwsim
