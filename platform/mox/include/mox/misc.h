/* Randomness, private keys, clocks and base64. None of these suspend. */
#ifndef MOX_MISC_H
#define MOX_MISC_H

#include "mox/compiler.h"

#include <stddef.h>
#include <stdint.h>

MOX_EXTERN_C_BEGIN

typedef struct evp_pkey_st EVP_PKEY;

/* Fills `buf` from the kernel's random source. 0, or a negated errno. */
int mox_get_urandom(void *buf, size_t len);

/* Reads the first private key (RSA or EC) of a PEM file, which may also hold
 * certificates. 0 and the key (freed with EVP_PKEY_free), or -2 when the
 * file cannot be opened, -29 when it holds no readable key. */
int mox_pkey_from_pem_file(const char *path, EVP_PKEY **pkey);

/* Monotonic clock in microseconds; the loop's cached time is this / 1000. */
uint64_t get_abs_time_us(void);
/* Wall-clock milliseconds since the Unix epoch. */
int64_t get_real_time_ms(void);

/* Writes at most `dstlen` characters of the padded standard base64 encoding
 * of `src` (cut off there when longer) and returns how many it wrote. No
 * terminating NUL is written. */
size_t base64_encode(const void *src, size_t srclen, char *dst, size_t dstlen);

MOX_EXTERN_C_END

#endif
