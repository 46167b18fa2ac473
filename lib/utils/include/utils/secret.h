/* Random secrets and digests. None of these suspend the calling coroutine,
 * keep state between calls or return an error: a failing random source is
 * an internal error that ends the program. */
#ifndef TARN_UTILS_SECRET_H
#define TARN_UTILS_SECRET_H

#include "mox/compiler.h"

#include <stddef.h>
#include <stdint.h>

MOX_EXTERN_C_BEGIN

/* Length of the digest that calculate_sha writes. */
#define TARN_SHA256_LEN 32

/* A new NUL-terminated string of exactly `len` random characters of the
 * standard base64 alphabet, never "=" (each character carries 6 random
 * bits). The caller frees it with __mox_free. The value is never logged. */
char *generate_hmac_secret(size_t len);

/* Fills `buf` with `len` bytes from the system's cryptographic random
 * source; 0. A failing source is reported as a bug and ends the program. */
int mox_xget_urandom(void *buf, uint32_t len);

/* Writes the SHA-256 digest of the `len` bytes at `data` into `digest`,
 * which has room for TARN_SHA256_LEN bytes. */
void calculate_sha(const void *data, uint32_t len, unsigned char *digest);

/* The times-33 hash of a NUL-terminated string (5381 for ""). Bytes count
 * as signed chars, so a byte of 0x80 or above adds a negative amount. */
uint64_t k33_hash(const char *str);

/* 1 when all `len` bytes at `buf` are zero (also for `len` 0), else 0.
 * `buf` needs no particular alignment. */
int is_zero_mem(const void *buf, uint32_t len);

/* 1 when `path` begins with "/", else 0 (also for ""). */
int is_absolute_path(const char *path);

MOX_EXTERN_C_END

#endif
