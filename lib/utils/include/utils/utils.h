/* The gateway utility library: secrets and digests, info files, the
 * keepalive registry, configuration and coroutine helpers. A C interface;
 * C programs include this header and link the library. */
#ifndef TARN_UTILS_H
#define TARN_UTILS_H

#include "utils/info_file.h"
#include "utils/keepalive.h"
#include "utils/mox_helpers.h"
#include "utils/secret.h"

#endif
