// The simulator's listener and its peer client.
#pragma once

#include "state.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <chrono>
#include <mutex>

namespace gwsim
{

struct server {
    state st;
    std::mutex mu; // guards st; held while a request runs, but not during its peer calls
    boost::asio::ssl::context tls{boost::asio::ssl::context::tls_server};
    std::chrono::milliseconds peer_timeout{10000}; // bounds each peer call
};

// Gives srv.st a peer sender that releases `mu` for the call and bounds it
// by `peer_timeout`, then accepts connections for ever, one thread each.
void serve(server &srv, boost::asio::ip::tcp::acceptor &acceptor);

} // namespace gwsim
