// The simulator's network side: a TLS listener, one thread per connection,
// and the blocking client it uses to reach a peer gateway.
#include "server.h"

#include "ember/protocol.hpp"
#include "sync_client.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/json.hpp>
#include <chrono>
#include <openssl/x509v3.h>
#include <thread>

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

namespace gwsim
{
namespace
{

request to_request(const http::request<http::string_body> &in, bool cert_auth)
{
    request r;
    r.target = std::string(in.target());
    r.body = in.body();
    r.cert_auth = cert_auth;
    std::string auth(in[http::field::authorization]);
    if (auth.rfind("Bearer ", 0) == 0)
        r.bearer = auth.substr(7);
    r.peer_mac = std::string(in[ember_proto::hdr_peer_mac]);
    return r;
}

// Takes the request's fault and applies its delay; false when the
// connection must be dropped instead of carrying the request out.
bool before_request(server &srv, request &r)
{
    fault f;
    {
        std::lock_guard<std::mutex> lock(srv.mu);
        r.faults_taken = true;
        if (!take_fault(srv.st, r.target, r.body, f))
            return true;
    }
    r.fault_error = f.error;
    r.close_after = f.close_after;
    r.answer = !f.drop;
    r.fault_body = f.body;
    if (f.delay_ms)
        std::this_thread::sleep_for(std::chrono::milliseconds(f.delay_ms));
    return !f.drop || f.close_after;
}

void session(server &srv, tcp::socket sock)
{
    boost::system::error_code ec;
    // Answers go out whole at once; Nagle would hold their tails back.
    sock.set_option(tcp::no_delay(true), ec);
    beast::ssl_stream<tcp::socket> stream(std::move(sock), srv.tls);
    stream.handshake(asio::ssl::stream_base::server, ec);
    if (ec)
        return;
    SSL *ssl = stream.native_handle();
    bool cert_auth = SSL_get0_peer_certificate(ssl) && SSL_get_verify_result(ssl) == X509_V_OK;
    beast::flat_buffer buf;
    for (;;) {
        http::request<http::string_body> in;
        http::read(stream, buf, in, ec);
        if (ec)
            break;
        request r = to_request(in, cert_auth);
        if (!before_request(srv, r))
            break;
        response out;
        {
            std::lock_guard<std::mutex> lock(srv.mu);
            out = handle_request(srv.st, r);
        }
        if (!r.answer)
            break;
        if (!r.fault_body.empty())
            out = {200, r.fault_body};
        http::response<http::string_body> res{static_cast<http::status>(out.status), in.version()};
        res.set(http::field::content_type, "application/json");
        res.keep_alive(in.keep_alive());
        res.body() = std::move(out.body);
        res.prepare_payload();
        http::write(stream, res, ec);
        if (ec || !res.keep_alive() || r.close_after)
            break;
    }
    beast::get_lowest_layer(stream).close(ec);
}

} // namespace

void serve(server &srv, tcp::acceptor &acceptor)
{
    // Runs inside handle_request, under `mu`. Two gateways that call each
    // other at once, or a peer that never answers, must not stall the
    // other requests.
    srv.st.send_peer = [&srv](const std::string &addr, const char *target, const std::string &body,
                              const std::string &mac, std::string &answer) {
        struct relock {
            std::mutex &mu;
            ~relock() { mu.lock(); }
        };
        srv.mu.unlock();
        relock again{srv.mu};
        return send_peer(addr, target, body, mac, srv.peer_timeout, answer);
    };
    for (;;) {
        boost::system::error_code ec;
        tcp::socket sock = acceptor.accept(ec);
        if (ec)
            continue;
        std::thread([&srv, s = std::move(sock)]() mutable { session(srv, std::move(s)); }).detach();
    }
}

} // namespace gwsim
