// Blocking HTTPS requests from the simulator and its tests.
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
using tcp = asio::ip::tcp;

namespace gwsim
{

bool sync_post(const std::string &addr, const char *target, const std::string &body,
               const std::string &mac, unsigned &status, std::string &answer)
{
    std::string host;
    uint16_t port;
    if (!ember_proto::parse_address(addr.c_str(), host, port))
        return false;
    asio::io_context io;
    asio::ssl::context ctx(asio::ssl::context::tls_client);
    boost::system::error_code ec;
    ctx.set_default_verify_paths(ec);
    ctx.set_verify_mode(asio::ssl::verify_peer);
    beast::ssl_stream<tcp::socket> stream(io, ctx);
    X509_VERIFY_PARAM *param = SSL_get0_param(stream.native_handle());
    if (X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str()) != 1)
        X509_VERIFY_PARAM_set1_host(param, host.c_str(), 0);
    tcp::resolver resolver(io);
    auto endpoints = resolver.resolve(host, std::to_string(port), ec);
    if (!ec)
        asio::connect(stream.next_layer(), endpoints, ec);
    if (!ec)
        stream.handshake(asio::ssl::stream_base::client, ec);
    http::request<http::string_body> req{http::verb::post, target, 11};
    req.set(http::field::host, host);
    if (!mac.empty())
        req.set(ember_proto::hdr_peer_mac, mac);
    req.body() = body;
    req.prepare_payload();
    if (!ec)
        http::write(stream, req, ec);
    beast::flat_buffer buf;
    http::response<http::string_body> res;
    if (!ec)
        http::read(stream, buf, res, ec);
    bool failed = ec.failed();
    stream.next_layer().close(ec);
    if (failed)
        return false;
    status = res.result_int();
    answer = std::move(res.body());
    return true;
}

int send_peer(const std::string &addr, const std::string &body, const std::string &mac)
{
    unsigned status = 0;
    std::string answer;
    if (!sync_post(addr, ember_proto::op_peer_replica, body, mac, status, answer))
        return ember_proto::err_io;
    boost::system::error_code ec;
    boost::json::value v = boost::json::parse(answer, ec);
    const boost::json::object *o = (!ec && v.is_object()) ? &v.as_object() : nullptr;
    if (o && o->contains("error") && o->at("error").is_int64())
        return static_cast<int>(o->at("error").as_int64());
    return ember_proto::err_for_status(status);
}

} // namespace gwsim
