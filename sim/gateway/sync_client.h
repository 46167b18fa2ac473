// A blocking HTTPS client with a deadline: the simulator's peer requests,
// over kept-alive connections, and the tests' one-shot calls of its test
// endpoints.
#pragma once

#include <chrono>
#include <memory>
#include <string>

namespace gwsim
{

// Bounds every peer request unless the simulator is told otherwise.
inline constexpr std::chrono::milliseconds peer_timeout_default{10000};

// POSTs `body` to `target` at `addr` ("host[:port]") on a connection of its
// own, verifying the server against OpenSSL's default verify paths. `mac`,
// when not empty, goes in the peer MAC header. 0 with the answer's status
// and body; 110 when `timeout` passes first (resolution, connection,
// handshake and exchange together); 30 for a malformed address; 80 when the
// gateway cannot be reached or does not answer. Blocks the calling thread,
// never longer than `timeout`.
int sync_post(const std::string &addr, const char *target, const std::string &body,
              const std::string &mac, std::chrono::milliseconds timeout, unsigned &status,
              std::string &answer);

// Idle kept-alive connections to peers, by address. Thread-safe: each call
// has a connection to itself, taken from the pool or made, and gives it
// back only after a complete keep-alive exchange.
class peer_pool
{
  public:
    peer_pool();
    ~peer_pool();
    peer_pool(const peer_pool &) = delete;
    peer_pool &operator=(const peer_pool &) = delete;

    // sync_post over a pooled connection. A reused connection that the peer
    // closed is found out before the request goes, or when writing it; the
    // request is then sent once more on a fresh connection (nothing of it
    // can have been carried out). Any other failure is not retried.
    int post(const std::string &addr, const char *target, const std::string &body,
             const std::string &mac, std::chrono::milliseconds timeout, unsigned &status,
             std::string &answer);

  private:
    struct impl;
    std::unique_ptr<impl> impl_;
};

// Sends a peer request (see peer_sender) through `pool`: 0 with the
// answer's body, the peer's error code, or sync_post's. Blocks, never
// longer than `timeout`.
int send_peer(peer_pool &pool, const std::string &addr, const char *target, const std::string &body,
              const std::string &mac, std::chrono::milliseconds timeout, std::string &answer);

} // namespace gwsim
