// The simulated gateway's state and its request handler, apart from any
// network code so that tests can drive it directly.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <openssl/evp.h>
#include <string>
#include <vector>

namespace gwsim
{

struct replica_state {
    bool enabled = false;
    bool is_master = false;
    std::string peer_uid;
    std::string peer_addr;
};

struct listing {
    std::string path;
    std::vector<std::pair<std::string, uint32_t>> entries; // name, mode
};

// A test's fault: requests to `op` (on `path`, or any path when empty) fail
// with `error`, wait `delay_ms` first, or lose their connection; with
// `close_after` they are carried out first (answered unless `drop`), then
// the connection closes; `body` replaces the answer's body (status 200).
struct fault {
    std::string op;
    std::string path;
    int error = 0;
    uint32_t delay_ms = 0;
    bool drop = false;
    int count = 0; // times it still applies; 0 for every time
    bool close_after = false;
    std::string body{};
};

// Sends a peer request to `target` of the gateway at `addr`: 0 and the
// answer's body, the peer's error code (positive), 80 when it cannot be
// reached or 110 when it does not answer in time. The listener runs it
// with the state's lock released, so a caller copies what it needs from
// the state before the call and checks the state again after it.
using peer_sender =
    std::function<int(const std::string &addr, const char *target, const std::string &body,
                      const std::string &mac, std::string &answer)>;

struct state {
    std::string root; // the data directory: "/" of the gateway's tree
    std::string uid;
    std::string self_addr;                         // how peers reach this gateway
    std::vector<EVP_PKEY *> jwt_keys;              // owned
    std::map<std::string, std::string> peer_addrs; // uid -> address
    peer_sender send_peer;

    std::map<std::string, std::map<int, std::string>> secrets; // account -> kind -> text
    // new account name -> configuration and "status" ("pending", "running",
    // "done" or "failed: CODE")
    std::map<std::string, std::map<std::string, std::string>> pulls;
    bool pull_on_configure = false; // run a pull before its configuration is answered
    std::map<std::string, int> ondemand;
    std::map<std::string, replica_state> replicas; // by path
    std::map<std::string, listing> listings;       // by listing id
    std::map<std::string, std::string> open_files; // handle -> path
    std::vector<fault> faults;
    uint64_t next_id = 1;

    ~state();
};

struct request {
    std::string target;
    std::string body;
    bool cert_auth = false; // the client presented a verified certificate
    std::string bearer;     // JWT, when given
    std::string peer_mac;
    bool faults_taken = false; // the listener already took the matching fault
    int fault_error = 0;       // and this is its error
    bool close_after = false;  // close the connection once carried out
    bool answer = true;        // false: carried out but never answered
    std::string fault_body{};  // replaces the answer's body when not empty
};

struct response {
    unsigned status = 200;
    std::string body;
};

// Carries out one request against `st`. Pure but for the data directory
// and `st.send_peer`.
response handle_request(state &st, const request &req);

// Takes the first fault that matches the request's target and body path:
// true and a copy in `out`; a fault with a count is used up once.
bool take_fault(state &st, const std::string &target, const std::string &body, fault &out);

// Verifies a compact JWS against the trusted keys, its expiry and audience
// and fills `grants` (path, mask). 0 or a positive error code.
int verify_jwt(const state &st, const std::string &token,
               std::vector<std::pair<std::string, uint32_t>> &grants);

// Hex HMAC-SHA256 of `body` under `secret`.
std::string peer_mac(const std::string &secret, const std::string &body);

} // namespace gwsim
