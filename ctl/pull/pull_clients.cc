// Client handles to the source and destination gateways of a pull.
#include "frame/tarn_ctl.h"
#include "mox/mox.h"
#include "pull.h"

#include <openssl/evp.h>

namespace
{

ember_client *alloc_with_host(const char *address)
{
    ember_client *c = ember_client_alloc();
    int rc = ember_client_set_host(c, address);
    if (rc != 0)
        mox_fatal("failed to use a host address %s: %i (%s)", address, rc, mox_strerror(-rc));
    return c;
}

void set_jwt(ember_client *c, const char *jwt)
{
    int rc = ember_client_set_jwt(c, jwt);
    if (rc != 0)
        mox_fatal("failed to set JWT for ember_client: %i (%s)", rc, mox_strerror(-rc));
}

void set_ident(ember_client *c)
{
    ember_client_set_ident(c, "TARN migration tool", 0, 0, 1);
}

// The value of a configuration key that names the local gateway; a missing
// or empty one would send credentials to no address or build "(null)" paths.
const char *local_setting(const char *key, const char *form)
{
    const char *value = nullptr;
    int rc = mox_config_getstr_expand(config, key, &value);
    if (rc == 0 && (value == nullptr || *value == '\0'))
        rc = -MOX_ENOENT;
    if (rc != 0)
        mox_fatal("failed to find a line '%s = %s' in TARN config file: %i (%s)", key, form, rc,
                  mox_strerror(-rc));
    return value;
}

} // namespace

ember_client *get_ember_client_jwt(const char *address, const char *jwt)
{
    ember_client *c = alloc_with_host(address);
    set_jwt(c, jwt);
    set_ident(c);
    return c;
}

ember_client *get_ember_client_cert(const char *address, const char *path)
{
    ember_client *c = alloc_with_host(address);
    if (pull_settings.src_dc_uid != nullptr) {
        ember_client_set_allowed_protos(c, 2);
        EVP_PKEY *key = nullptr;
        int rc = mox_pkey_from_pem_file(path, &key);
        if (rc != 0)
            mox_fatal("failed to get private key form certificate '%s': %i (%s)", path, rc,
                      mox_strerror(-rc));
        ember_jwt_grant grant = {"/", 11};
        ember_jwt_request req = {"tarn:self", "self", "self", "self", "self", &grant, 1, key};
        char *jwt = ember_jwt_generate(&req);
        EVP_PKEY_free(key);
        if (jwt != nullptr)
            mox_co_log(7, "JWT for pull:\n%s", jwt);
        set_jwt(c, jwt);
        mox_free(jwt);
    } else {
        int rc = ember_client_load_auth_from_pem_file(c, path);
        if (rc != 0)
            mox_fatal("failed to use a client certificate from '%s': %i (%s)", path, rc,
                      mox_strerror(-rc));
    }
    set_ident(c);
    return c;
}

ember_client *get_dst_ember_client(const char *address, const char *path, const char *jwt)
{
    if (address == nullptr)
        address = local_setting("tarn.private_addr", "<address>");
    if (jwt != nullptr)
        return get_ember_client_jwt(address, jwt);
    if (path != nullptr)
        return get_ember_client_cert(address, path);
    char *own = mox_asprintf("%s/tarn.pem", local_setting("certs.dir", "</path>"));
    ember_client *c = get_ember_client_cert(address, own);
    mox_free(own);
    return c;
}
