// Random trust secrets.
#include "utils/secret.h"

#include "mox/alloc.h"
#include "mox/log.h"
#include "mox/misc.h"

extern "C" {

int mox_xget_urandom(void *buf, uint32_t len)
{
    int rc = mox_get_urandom(buf, len);
    MOX_BUG_ON(rc != 0, "utils", "mox_xget_urandom");
    return 0;
}

char *generate_hmac_secret(size_t len)
{
    auto *secret = static_cast<char *>(mox_zmalloc(len + 1));
    auto *random = static_cast<unsigned char *>(mox_zmalloc(len));
    mox_xget_urandom(random, static_cast<uint32_t>(len));
    // The encoding of `len` bytes is longer than `len` characters and its
    // "=" padding lies in its last two, so the cut-off prefix has none.
    size_t n = base64_encode(random, len, secret, len);
    MOX_BUG_ON(n != len, "utils", "generate_hmac_secret");
    mox_free(random);
    return secret;
}

} // extern "C"
