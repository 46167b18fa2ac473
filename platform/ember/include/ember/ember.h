/* The gateway client library: handles bound to one gateway and one
 * credential, talking HTTPS (docs/gateway-protocol.md). Every call that
 * talks to the gateway must run in a coroutine on the runtime's loop; it
 * suspends only that coroutine, and fails with -110 once the coroutine's
 * context deadline has passed. Results: 0, a negated runtime code for the
 * gateway's answers, or a negated errno value for transport failures.
 * Account names and paths are bytes as the file system holds them; they
 * need not be UTF-8. */
#ifndef EMBER_EMBER_H
#define EMBER_EMBER_H

#include "mox/compiler.h"

#include <openssl/evp.h>
#include <stddef.h>
#include <stdint.h>

MOX_EXTERN_C_BEGIN

typedef struct ember_client ember_client;
typedef struct ember_file ember_file;

/* One access grant of a JWT: a path prefix and its access mask. */
typedef struct ember_jwt_grant {
    const char *path;
    uint32_t mask;
} ember_jwt_grant;

/* What ember_jwt_generate signs. Borrowed for the call only. */
typedef struct ember_jwt_request {
    const char *issuer;   /* "iss" */
    const char *subject;  /* "sub" */
    const char *tenant;   /* "tnt" */
    const char *account;  /* "acc" */
    const char *audience; /* "aud": the gateway's uid, or "self" for any */
    const ember_jwt_grant *grants;
    size_t n_grants;
    EVP_PKEY *key; /* RSA (RS256) or EC P-256 (ES256) */
} ember_jwt_request;

/* A new handle holding one reference; no address or credential yet. Never
 * null. Does not suspend. */
ember_client *ember_client_alloc(void);
/* Adds a reference; returns `client`. */
ember_client *ember_client_get(ember_client *client);
/* Drops a reference; the last one closes the connection and frees the
 * handle. Null is ignored. Does not suspend. */
void ember_client_put(ember_client *client);

/* Binds the handle to "host[:port]" (a name, an IPv4 address or a bracketed
 * IPv6 address; port 8443 when absent). -30 for a malformed address. Drops
 * any open connection. Does not suspend. */
int ember_client_set_host(ember_client *client, const char *address);
/* Authenticates with `jwt` as a bearer token (copied; the caller may free
 * it). -30 when it is not a compact JWS. Does not suspend. */
int ember_client_set_jwt(ember_client *client, const char *jwt);
/* Loads the client certificate and its private key from one PEM file.
 * 0, -8 when the file cannot be read, -29 when it holds no certificate or
 * no matching key. Does not suspend. */
int ember_client_load_auth_from_pem_file(ember_client *client, const char *path);
/* Restricts TLS versions: bit 1 TLS 1.2, bit 2 TLS 1.3 (3 by default).
 * -30 for no known bit. Does not suspend. */
int ember_client_set_allowed_protos(ember_client *client, int protos);
/* Sets the identification sent with every request: a product name, its
 * major and minor version and a kind number. Does not suspend. */
int ember_client_set_ident(ember_client *client, const char *name, int major, int minor, int kind);
/* Non-zero when the loaded certificate carries the extended key usage
 * TLS Web Client Authentication. */
int ember_client_is_web(const ember_client *client);
/* Non-zero when the handle authenticates with a JWT. */
int ember_client_is_jwt(const ember_client *client);

/* A compact JWS (RS256 or ES256 by the key's type) over the request's
 * texts, its grants and an expiry 300 s from now; allocated with the
 * runtime's allocator, freed by the caller. Null when the key is neither
 * RSA nor EC on P-256, or signing fails. Does not suspend. */
char *ember_jwt_generate(const ember_jwt_request *req);

/* The account's trust secret of `kind` in *secret (runtime allocation,
 * freed by the caller); -8 when the account has none of that kind.
 * Suspends. */
int ember_get_trust_secret(ember_client *client, const char *account, int kind, char **secret);
/* Sets the account's trust secret of `kind`; "" clears it. Suspends. */
int ember_set_trust_secret(ember_client *client, const char *account, int kind, const char *secret);
/* Tells the destination gateway to pull `src_account` from the gateway at
 * `src` (uid `src_dc_uid`) into `new_name`, authenticated with `secret`.
 * Flags: bit 4 trust mode, bit 1 remove the source when done. Suspends. */
int ember_account_pull_configure_dst(ember_client *client, const char *new_name,
                                     const char *src_dc_uid, const char *src,
                                     const char *src_account, const char *secret, int flags);
/* Sets the account's on-demand-only pull flag (0 or 1). Suspends. */
int ember_account_pull_set_ondemand_only(ember_client *client, const char *account, int value);

/* Per-file replication, called on the site named in each comment; `path`
 * is "/account/...". All suspend. */
/* Master: make a replica at the slave and mark the file as its master. */
int ember_file_enable_replication(ember_client *client, const char *path, const char *slave_addr,
                                  const char *slave_uid);
/* Master: end replication; with `force` a slave that cannot be told is
 * not an error. */
int ember_file_disable_replication(ember_client *client, const char *path, int force);
/* Slave: make the replica an independent file. */
int ember_file_detach_replica_from_master(ember_client *client, const char *path, int flags);
/* Master: hand the master role to the slave; this copy becomes the
 * replica. */
int ember_file_switch_to_slave_replica(ember_client *client, const char *path);
/* Master: make the slave `slave_uid` a replica of this file again. */
int ember_file_join_to_slave_replica(ember_client *client, const char *path, const char *slave_uid);
/* The file's state text ("replica.enabled", "replica.is_master",
 * "replica.peer_uid" in configuration syntax) in *state, allocated with
 * the runtime's allocator and freed by the caller. */
int ember_file_get_state(ember_client *client, const char *path, char **state);
/* Opens a regular file: 0 and *file (holding a reference to the client),
 * -8 when it does not exist. Suspends. */
int ember_file_open(ember_client *client, ember_file **file, const char *path, int flags);
/* Closes and frees the file handle, whatever the result. Suspends. */
int ember_file_close(ember_file *file);

MOX_EXTERN_C_END

#endif
