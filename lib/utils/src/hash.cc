// String hash and memory and path tests.
#include "utils/secret.h"

#include <cstring>

extern "C" {

uint64_t k33_hash(const char *str)
{
    uint64_t h = 5381;
    for (const char *p = str; *p != '\0'; ++p) {
        // Sign-extended on purpose: bytes of 0x80 and above subtract.
        auto c = static_cast<int64_t>(static_cast<signed char>(*p));
        h = h + (h << 5) + static_cast<uint64_t>(c);
    }
    return h;
}

int is_zero_mem(const void *buf, uint32_t len)
{
    const auto *p = static_cast<const unsigned char *>(buf);
    uint32_t words = len / 8;
    for (uint32_t i = 0; i < words; ++i, p += 8) {
        uint64_t w;
        memcpy(&w, p, sizeof w); // no alignment needed, no aliasing trouble
        if (w != 0)
            return 0;
    }
    for (uint32_t i = 0; i < len % 8; ++i) {
        if (p[i] != 0)
            return 0;
    }
    return 1;
}

int is_absolute_path(const char *path)
{
    return path[0] == '/' ? 1 : 0;
}

} // extern "C"
