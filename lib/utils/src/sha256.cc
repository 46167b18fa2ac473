// SHA-256 through OpenSSL's one-shot low-level calls. OpenSSL 3 marks them
// deprecated; the define below silences that for this file alone, so the
// rest of the build keeps the warning (and -Werror) for new uses.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "utils/secret.h"

#include <openssl/sha.h>

static_assert(TARN_SHA256_LEN == SHA256_DIGEST_LENGTH);

extern "C" void calculate_sha(const void *data, uint32_t len, unsigned char *digest)
{
    SHA256_CTX ctx;
    SHA256_Init(&ctx);
    SHA256_Update(&ctx, data, len);
    SHA256_Final(digest, &ctx);
}
