// The simulator's network side: a TLS listener, one thread per connection
// with deadlines on its handshake and requests, and the blocking client it
// uses to reach a peer gateway.
#include "server.h"

#include "ember/protocol.hpp"
#include "sync_client.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/json.hpp>
#include <cerrno>
#include <chrono>
#include <memory>
#include <openssl/x509v3.h>
#include <pthread.h>
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
        if (!take_request_fault(srv.st, r, f))
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

using tls_stream = beast::ssl_stream<tcp::socket>;
using request_parser = http::request_parser<http::string_body>;

// Answers a request that is not read to its end, then the connection closes.
void refuse(tls_stream &stream, unsigned status, unsigned version)
{
    http::response<http::string_body> res{static_cast<http::status>(status), version};
    res.set(http::field::content_type, "application/json");
    if (status == 405)
        res.set(http::field::allow, "POST");
    res.keep_alive(false);
    res.body() = R"({"error":30})";
    res.prepare_payload();
    boost::system::error_code ec;
    http::write(stream, res, ec);
}

const unsigned connection_gone = 1;

// Reads one request, its head first so that an oversized or unwanted one
// is refused before its body arrives: 0 when read, connection_gone, or the
// status to refuse it with.
unsigned read_request(tls_stream &stream, beast::flat_buffer &buf, request_parser &parser)
{
    parser.header_limit(ember_proto::request_header_max);
    parser.body_limit(ember_proto::request_body_max);
    boost::system::error_code ec;
    http::read_header(stream, buf, parser, ec);
    if (!ec && parser.get().method() != http::verb::post)
        return 405;
    if (!ec && beast::iequals(parser.get()[http::field::expect], "100-continue"))
        http::write(stream, http::response<http::empty_body>{http::status::continue_, 11}, ec);
    if (!ec)
        http::read(stream, buf, parser, ec);
    if (ec == http::error::header_limit)
        return 431;
    if (ec == http::error::body_limit)
        return 413;
    if (!ec || ec == http::error::end_of_stream || ec == http::error::partial_message)
        return ec ? connection_gone : 0;
    // The parser's other errors are the client's: a malformed request.
    bool malformed = ec.category() == http::make_error_code(http::error::bad_target).category();
    return malformed ? 400 : connection_gone;
}

void reply(tls_stream &stream, const http::request<http::string_body> &in, response out,
           boost::system::error_code &ec)
{
    http::response<http::string_body> res{static_cast<http::status>(out.status), in.version()};
    res.set(http::field::content_type, "application/json");
    res.keep_alive(in.keep_alive());
    res.body() = std::move(out.body);
    res.prepare_payload();
    http::write(stream, res, ec);
    if (!res.keep_alive())
        ec = asio::error::eof;
}

void session(server &srv, tcp::socket sock)
{
    boost::system::error_code ec;
    // Answers go out whole at once; Nagle would hold their tails back.
    sock.set_option(tcp::no_delay(true), ec);
    int fd = sock.native_handle();
    tls_stream stream(std::move(sock), srv.tls);
    srv.dog.arm(fd, srv.handshake_timeout);
    stream.handshake(asio::ssl::stream_base::server, ec);
    SSL *ssl = stream.native_handle();
    bool cert_auth = SSL_get0_peer_certificate(ssl) && SSL_get_verify_result(ssl) == X509_V_OK;
    beast::flat_buffer buf;
    while (!ec) {
        srv.dog.arm(fd, srv.idle_timeout);
        request_parser parser;
        if (unsigned refused = read_request(stream, buf, parser); refused != 0) {
            if (refused != connection_gone)
                refuse(stream, refused, 11);
            break;
        }
        srv.dog.disarm(fd); // a request may take its peer calls' and faults' time
        const auto &in = parser.get();
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
        srv.dog.arm(fd, srv.idle_timeout);
        reply(stream, in, std::move(out), ec);
        if (r.close_after)
            break;
    }
    srv.dog.disarm(fd);
    beast::get_lowest_layer(stream).close(ec);
}

// Out of descriptors or memory the pending connection stays queued and
// accept fails at once again: pause instead of spinning.
bool accept_should_pause(const boost::system::error_code &ec)
{
    return ec == asio::error::no_descriptors || ec.value() == ENFILE ||
           ec == asio::error::no_buffer_space || ec == asio::error::no_memory;
}

struct session_job {
    server *srv;
    tcp::socket sock;
};

void *run_session(void *arg)
{
    std::unique_ptr<session_job> job(static_cast<session_job *>(arg));
    session(*job->srv, std::move(job->sock));
    std::lock_guard<std::mutex> lock(job->srv->conn_mu);
    job->srv->connections--;
    job->srv->conn_freed.notify_one();
    return nullptr;
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
        return send_peer(srv.peers, addr, target, body, mac, srv.peer_timeout, answer);
    };
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(srv.conn_mu);
            srv.conn_freed.wait(lock, [&srv] { return srv.connections < srv.max_connections; });
        }
        boost::system::error_code ec;
        tcp::socket sock = acceptor.accept(ec);
        if (accept_should_pause(ec))
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (ec)
            continue;
        {
            std::lock_guard<std::mutex> lock(srv.conn_mu);
            srv.connections++;
        }
        // pthread directly: a thread that cannot be had is a return code,
        // not an exception thrown from inside std::thread.
        auto *job = new session_job{&srv, std::move(sock)};
        pthread_t tid;
        if (pthread_create(&tid, nullptr, run_session, job) == 0) {
            pthread_detach(tid);
            continue;
        }
        // No thread (out of memory or descriptors): this connection is
        // dropped, the simulator waits and goes on.
        delete job;
        std::lock_guard<std::mutex> lock(srv.conn_mu);
        srv.connections--;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

} // namespace gwsim
