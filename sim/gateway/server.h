// The simulator's listener and its peer client.
#pragma once

#include "state.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <mutex>

namespace gwsim
{

struct server {
    state st;
    std::mutex mu; // guards st; held for the whole of a request
    boost::asio::ssl::context tls{boost::asio::ssl::context::tls_server};
};

// Accepts connections for ever, one thread each.
void serve(server &srv, boost::asio::ip::tcp::acceptor &acceptor);

} // namespace gwsim
