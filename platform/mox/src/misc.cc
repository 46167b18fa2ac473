// Random bytes, PEM keys, clocks and base64.
#include "mox/misc.h"

#include "mox/errors.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/random.h>

extern "C" {

int mox_get_urandom(void *buf, size_t len)
{
    auto *p = static_cast<unsigned char *>(buf);
    while (len > 0) {
        ssize_t n = getrandom(p, len, 0);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return -errno;
        }
        p += n;
        len -= static_cast<size_t>(n);
    }
    return 0;
}

int mox_pkey_from_pem_file(const char *path, EVP_PKEY **pkey)
{
    FILE *f = fopen(path, "re");
    if (f == nullptr)
        return -errno;
    // Skips certificate blocks until it meets a private key.
    EVP_PKEY *key = PEM_read_PrivateKey(f, nullptr, nullptr, nullptr);
    fclose(f);
    if (key == nullptr)
        return -MOX_EMALFORMED;
    *pkey = key;
    return 0;
}

uint64_t get_abs_time_us(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

int64_t get_real_time_ms(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

size_t base64_encode(const void *src, size_t srclen, char *dst, size_t dstlen)
{
    static const char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const auto *in = static_cast<const unsigned char *>(src);
    size_t out = 0;
    auto put = [&](char c) {
        if (out < dstlen)
            dst[out++] = c;
    };
    for (size_t i = 0; i < srclen && out < dstlen; i += 3) {
        uint32_t v = static_cast<uint32_t>(in[i]) << 16;
        size_t rest = srclen - i;
        if (rest > 1)
            v |= static_cast<uint32_t>(in[i + 1]) << 8;
        if (rest > 2)
            v |= in[i + 2];
        put(alphabet[(v >> 18) & 63]);
        put(alphabet[(v >> 12) & 63]);
        put(rest > 1 ? alphabet[(v >> 6) & 63] : '=');
        put(rest > 2 ? alphabet[v & 63] : '=');
    }
    return out;
}

} // extern "C"
