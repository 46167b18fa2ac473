// A blocking one-shot HTTPS client with a deadline: the simulator's peer
// requests and the tests' calls of its test endpoints.
#pragma once

#include <chrono>
#include <string>

namespace gwsim
{

// Bounds every peer request unless the simulator is told otherwise.
inline constexpr std::chrono::milliseconds peer_timeout_default{10000};

// POSTs `body` to `target` at `addr` ("host[:port]"), verifying the server
// against OpenSSL's default verify paths. `mac`, when not empty, goes in
// the peer MAC header. 0 with the answer's status and body; 110 when
// `timeout` passes first (resolution, connection, handshake and exchange
// together); 30 for a malformed address; 80 when the gateway cannot be
// reached or does not answer. Blocks the calling thread, never longer than
// `timeout`.
int sync_post(const std::string &addr, const char *target, const std::string &body,
              const std::string &mac, std::chrono::milliseconds timeout, unsigned &status,
              std::string &answer);

// Sends a peer request (see peer_sender): 0 with the answer's body, the
// peer's error code, or sync_post's. Blocks, never longer than `timeout`.
int send_peer(const std::string &addr, const char *target, const std::string &body,
              const std::string &mac, std::chrono::milliseconds timeout, std::string &answer);

} // namespace gwsim
