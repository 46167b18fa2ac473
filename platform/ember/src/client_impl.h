// The client handle's record and the transport beneath it (internal).
#pragma once

#include "ember/ember.h"

#include <openssl/x509.h>
#include <string>

struct ember_transport;

struct ember_client {
    int refs = 1;
    std::string host; // without brackets
    uint16_t port = 0;
    std::string jwt;
    std::string pem_path; // certificate and key, when loaded
    bool web = false;
    int protos = 3;
    std::string ident = "ember-client/0.0 0";
    ember_transport *transport = nullptr;
};

struct ember_file {
    ember_client *client;
    std::string handle;
};

namespace ember
{

// Runs one request on the client's connection: POST `target` with `body`.
// 0 with the answer's status and body, or a negated errno (or -110 past
// the context deadline). Suspends the calling coroutine.
int transport_request(ember_client *c, const char *target, const std::string &body,
                      unsigned &status, std::string &answer);
// Closes the connection and forgets the TLS setup (after a change of
// address or credential).
void transport_reset(ember_client *c);
void transport_free(ember_client *c);

} // namespace ember
