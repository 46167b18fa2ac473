// The simulator's listener and its peer client.
#pragma once

#include "state.h"
#include "sync_client.h"
#include "watchdog.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace gwsim
{

struct server {
    state st;
    std::mutex mu; // guards st; held while a request runs, but not during its peer calls
    boost::asio::ssl::context tls{boost::asio::ssl::context::tls_server};
    std::chrono::milliseconds peer_timeout{10000};      // bounds each peer call
    peer_pool peers;                                    // kept-alive connections to peers
    std::chrono::milliseconds handshake_timeout{10000}; // from accept to the TLS session
    std::chrono::milliseconds idle_timeout{60000};      // for each request and each answer
    size_t max_connections = 256;

    watchdog dog; // enforces the two timeouts above
    std::mutex conn_mu;
    std::condition_variable conn_freed;
    size_t connections = 0; // guarded by conn_mu
};

// Gives srv.st a peer sender that releases `mu` for the call, bounds it by
// `peer_timeout` and reuses `peers`' connections, then accepts connections for ever, one thread
// each and at most `max_connections` at once. Does not return.
void serve(server &srv, boost::asio::ip::tcp::acceptor &acceptor);

} // namespace gwsim
