// HTTPS requests on the loop's I/O context, one kept-alive connection per
// handle. Each asynchronous step is awaited by suspending only the calling
// coroutine.
#include "client_impl.h"
#include "ember/protocol.hpp"
#include "mox/asio.hpp"
#include "mox/co.h"
#include "mox/errors.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <cerrno>
#include <cstring>
#include <memory>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

struct ember_transport {
    asio::ssl::context ssl{asio::ssl::context::tls_client};
    std::unique_ptr<beast::ssl_stream<beast::tcp_stream>> stream;
    beast::flat_buffer buffer;
    bool ready = false; // connected and handshaken
    explicit ember_transport() = default;
};

namespace ember
{
namespace
{

const size_t read_room = 64 * 1024;

int sys_err(const boost::system::error_code &ec)
{
    if (ec == asio::error::eof || ec == http::error::end_of_stream ||
        ec == asio::ssl::error::stream_truncated || ec == http::error::partial_message)
        return -ECONNRESET;
    if (ec.category() == asio::error::get_ssl_category())
        return -MOX_EAUTH; // TLS refusal: unknown CA, wrong name, no client cert
    if (ec.category() == boost::system::system_category() && ec.value() > 0)
        return -ec.value();
    if (ec == asio::error::host_not_found || ec == asio::error::host_not_found_try_again)
        return -EHOSTUNREACH;
    return -EIO;
}

// Starts an operation with a completion handler and suspends the calling
// coroutine until it completes. Past the context deadline (or once the
// context is cancelled) `cancel` runs, the handler is still awaited (it
// references this frame) and the result is -110 (or -125).
template <class Start, class Cancel>
int await_op(Start start, Cancel cancel, boost::system::error_code &ec)
{
    mox_co *co = mox_current_co();
    bool done = false;
    start([&done, &ec, co](boost::system::error_code e, auto &&...) {
        ec = e;
        done = true;
        mox_co_wakeup(co);
    });
    while (!done) {
        int32_t ms = 3600000;
        // A plain -110 is the end of this slice, not of the context.
        int rc = mox_co_io_wait_cancelable(&ms);
        if (rc != 0 && !done && (rc = mox_co_check_ctx()) != 0) {
            cancel();
            while (!done)
                mox_co_park();
            return rc;
        }
    }
    return ec ? sys_err(ec) : 0;
}

int setup_tls(ember_client *c, ember_transport *t)
{
    boost::system::error_code ec;
    t->ssl.set_default_verify_paths(ec);
    if (ec)
        return -MOX_EIO;
    t->ssl.set_verify_mode(asio::ssl::verify_peer, ec);
    SSL_CTX *ctx = t->ssl.native_handle();
    SSL_CTX_set_min_proto_version(ctx, (c->protos & ember_proto::proto_tls12) ? TLS1_2_VERSION
                                                                              : TLS1_3_VERSION);
    SSL_CTX_set_max_proto_version(ctx, (c->protos & ember_proto::proto_tls13) ? TLS1_3_VERSION
                                                                              : TLS1_2_VERSION);
    if (!c->pem_path.empty()) {
        t->ssl.use_certificate_chain_file(c->pem_path, ec);
        if (!ec)
            t->ssl.use_private_key_file(c->pem_path, asio::ssl::context::pem, ec);
        if (ec)
            return -MOX_EMALFORMED;
    }
    return 0;
}

// The peer must present a certificate for the address we dialled.
void expect_name(ember_client *c, SSL *ssl)
{
    X509_VERIFY_PARAM *param = SSL_get0_param(ssl);
    boost::system::error_code ec;
    asio::ip::make_address(c->host, ec);
    if (!ec) {
        X509_VERIFY_PARAM_set1_ip_asc(param, c->host.c_str());
    } else {
        X509_VERIFY_PARAM_set1_host(param, c->host.c_str(), 0);
        SSL_set_tlsext_host_name(ssl, c->host.c_str());
    }
}

int connect(ember_client *c, ember_transport *t)
{
    asio::io_context &io = mox::io_context(mox_current_loop());
    t->stream = std::make_unique<beast::ssl_stream<beast::tcp_stream>>(io, t->ssl);
    t->buffer.clear();
    // Room for a whole TLS record per read: with the buffer's default 512
    // bytes, a listing page took some eighty reads, each a trip through the
    // loop.
    t->buffer.reserve(read_room);
    expect_name(c, t->stream->native_handle());
    tcp::resolver resolver(io);
    tcp::resolver::results_type endpoints;
    boost::system::error_code ec;
    int rc = await_op(
        [&](auto h) {
            resolver.async_resolve(c->host, std::to_string(c->port),
                                   [&endpoints, h](boost::system::error_code e,
                                                   tcp::resolver::results_type r) mutable {
                                       endpoints = std::move(r);
                                       h(e);
                                   });
        },
        [&] { resolver.cancel(); }, ec);
    auto &sock = beast::get_lowest_layer(*t->stream);
    if (rc == 0)
        rc = await_op([&](auto h) { sock.async_connect(endpoints, h); },
                      [&] { sock.socket().close(); }, ec);
    if (rc == 0) {
        sock.socket().set_option(tcp::no_delay(true), ec);
        rc =
            await_op([&](auto h) { t->stream->async_handshake(asio::ssl::stream_base::client, h); },
                     [&] { sock.socket().close(); }, ec);
    }
    if (rc != 0)
        t->stream.reset();
    t->ready = rc == 0;
    return rc;
}

// Operations that change nothing more when carried out twice: safe to send
// again after a connection failed with the request possibly delivered.
bool idempotent(const char *target)
{
    static const char *const kRepeatable[] = {
        ember_proto::op_secret_get, ember_proto::op_secret_set, ember_proto::op_pull_ondemand,
        ember_proto::op_file_state, ember_proto::op_dir_stat,   ember_proto::op_dir_list,
    };
    for (const char *op : kRepeatable) {
        if (strcmp(op, target) == 0)
            return true;
    }
    return false;
}

// A kept-alive connection with something to read, or hung up, was closed by
// the gateway while idle (or is out of step): it must not carry a request.
bool idle_connection_usable(ember_transport *t)
{
    pollfd p = {beast::get_lowest_layer(*t->stream).socket().native_handle(), POLLIN | POLLRDHUP,
                0};
    return poll(&p, 1, 0) == 0;
}

// `sent` receives the number of request bytes handed to the connection.
int exchange(ember_client *c, ember_transport *t, const char *target, const std::string &body,
             unsigned &status, std::string &answer, size_t &sent)
{
    http::request<http::string_body> req{http::verb::post, target, 11};
    req.set(http::field::host, c->host);
    req.set(http::field::content_type, "application/json");
    req.set(ember_proto::hdr_ident, c->ident);
    if (!c->jwt.empty())
        req.set(http::field::authorization, "Bearer " + c->jwt);
    req.body() = body;
    req.prepare_payload();
    auto &sock = beast::get_lowest_layer(*t->stream).socket();
    boost::system::error_code ec;
    sent = 0;
    int rc = await_op(
        [&](auto h) {
            http::async_write(*t->stream, req,
                              [&sent, h](boost::system::error_code e, size_t n) mutable {
                                  sent = n;
                                  h(e);
                              });
        },
        [&] { sock.close(); }, ec);
    http::response_parser<http::string_body> parser;
    parser.body_limit(64u << 20);
    if (rc == 0)
        rc = await_op([&](auto h) { http::async_read(*t->stream, t->buffer, parser, h); },
                      [&] { sock.close(); }, ec);
    if (rc != 0)
        return rc;
    auto &res = parser.get();
    status = res.result_int();
    answer = std::move(res.body());
    if (!res.keep_alive())
        transport_reset(c);
    return 0;
}

} // namespace

int transport_request(ember_client *c, const char *target, const std::string &body,
                      unsigned &status, std::string &answer)
{
    if (!mox_current_co() || c->host.empty())
        return -MOX_EINVAL;
    int rc = mox_co_check_ctx();
    if (rc != 0)
        return rc;
    if (!c->transport) {
        c->transport = new ember_transport();
        rc = setup_tls(c, c->transport);
        if (rc != 0) {
            transport_free(c);
            return rc;
        }
    }
    ember_transport *t = c->transport;
    // A kept-alive connection may have been closed by the gateway meanwhile.
    // Seen before sending, it is simply replaced. Failing later, the request
    // may have been carried out: it is sent once more on a fresh connection
    // only when none of it went out or repeating it changes nothing.
    if (t->ready && !idle_connection_usable(t))
        transport_reset(c);
    bool reused = t->ready;
    if (!t->ready && (rc = connect(c, t)) != 0)
        return rc;
    size_t sent = 0;
    rc = exchange(c, t, target, body, status, answer, sent);
    if (rc != 0 && rc != -ETIMEDOUT && rc != -ECANCELED) {
        t->stream.reset();
        t->ready = false;
        if (reused && (sent == 0 || idempotent(target)) && (rc = connect(c, t)) == 0)
            rc = exchange(c, t, target, body, status, answer, sent);
    }
    if (rc != 0) {
        t->stream.reset();
        t->ready = false;
    }
    return rc;
}

void transport_reset(ember_client *c)
{
    if (c->transport && c->transport->stream) {
        boost::system::error_code ec;
        beast::get_lowest_layer(*c->transport->stream).socket().close(ec);
        c->transport->stream.reset();
    }
    if (c->transport)
        c->transport->ready = false;
}

void transport_free(ember_client *c)
{
    transport_reset(c);
    delete c->transport;
    c->transport = nullptr;
}

} // namespace ember
