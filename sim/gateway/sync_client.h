// A blocking one-shot HTTPS client: the simulator's peer requests and the
// tests' calls of its test endpoints.
#pragma once

#include <string>

namespace gwsim
{

// POSTs `body` to `target` at `addr` ("host[:port]"), verifying the server
// against OpenSSL's default verify paths. `mac`, when not empty, goes in
// the peer MAC header. True with the answer's status and body; false when
// the gateway cannot be reached or does not answer. Blocks.
bool sync_post(const std::string &addr, const char *target, const std::string &body,
               const std::string &mac, unsigned &status, std::string &answer);

// Sends a peer request (see peer_sender); blocks.
int send_peer(const std::string &addr, const std::string &body, const std::string &mac);

} // namespace gwsim
