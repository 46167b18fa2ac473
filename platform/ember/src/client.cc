// Client handles: address, credential, identification, reference count.
#include "client_impl.h"
#include "ember/protocol.hpp"
#include "mox/errors.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace
{

bool has_web_usage(X509 *cert)
{
    uint32_t xku = X509_get_extended_key_usage(cert);
    return xku != UINT32_MAX && (xku & XKU_SSL_CLIENT);
}

// Both the certificate and a private key that matches it must be there.
int check_pem(const char *path, bool &web)
{
    FILE *f = fopen(path, "r");
    if (!f)
        return -MOX_ENOENT;
    X509 *cert = PEM_read_X509(f, nullptr, nullptr, nullptr);
    rewind(f);
    EVP_PKEY *key = PEM_read_PrivateKey(f, nullptr, nullptr, nullptr);
    fclose(f);
    int rc = (cert && key && X509_check_private_key(cert, key) == 1) ? 0 : -MOX_EMALFORMED;
    if (rc == 0)
        web = has_web_usage(cert);
    X509_free(cert);
    EVP_PKEY_free(key);
    return rc;
}

} // namespace

extern "C" {

ember_client *ember_client_alloc(void)
{
    return new ember_client();
}

ember_client *ember_client_get(ember_client *client)
{
    client->refs++;
    return client;
}

void ember_client_put(ember_client *client)
{
    if (!client || --client->refs > 0)
        return;
    ember::transport_free(client);
    delete client;
}

int ember_client_set_host(ember_client *client, const char *address)
{
    std::string host;
    uint16_t port;
    if (!ember_proto::parse_address(address, host, port))
        return -MOX_EINVAL;
    ember::transport_reset(client);
    client->host = host;
    client->port = port;
    return 0;
}

int ember_client_set_jwt(ember_client *client, const char *jwt)
{
    // header.payload.signature, each base64url
    std::string t = jwt ? jwt : "";
    size_t d1 = t.find('.');
    size_t d2 = d1 == std::string::npos ? d1 : t.find('.', d1 + 1);
    std::string scratch;
    if (d2 == std::string::npos || t.find('.', d2 + 1) != std::string::npos || d1 == 0 ||
        d2 == d1 + 1 || !ember_proto::base64url_decode(t.substr(0, d1), scratch) ||
        !ember_proto::base64url_decode(t.substr(d1 + 1, d2 - d1 - 1), scratch) ||
        !ember_proto::base64url_decode(t.substr(d2 + 1), scratch))
        return -MOX_EINVAL;
    ember::transport_free(client);
    client->jwt = t;
    return 0;
}

int ember_client_load_auth_from_pem_file(ember_client *client, const char *path)
{
    bool web = false;
    int rc = check_pem(path, web);
    if (rc != 0)
        return rc;
    ember::transport_free(client);
    client->pem_path = path;
    client->web = web;
    return 0;
}

int ember_client_set_allowed_protos(ember_client *client, int protos)
{
    if ((protos & (ember_proto::proto_tls12 | ember_proto::proto_tls13)) == 0)
        return -MOX_EINVAL;
    ember::transport_free(client);
    client->protos = protos;
    return 0;
}

int ember_client_set_ident(ember_client *client, const char *name, int major, int minor, int kind)
{
    if (!name || strpbrk(name, "\r\n"))
        return -MOX_EINVAL;
    client->ident = std::string(name) + "/" + std::to_string(major) + "." + std::to_string(minor) +
                    " " + std::to_string(kind);
    return 0;
}

int ember_client_is_web(const ember_client *client)
{
    return client->web;
}

int ember_client_is_jwt(const ember_client *client)
{
    return !client->jwt.empty();
}

} // extern "C"
