/* Error values. Failures are negative integers: negated errno values from
 * system calls, or negated runtime codes below. Both print as "%i (%s)". */
#ifndef MOX_ERRORS_H
#define MOX_ERRORS_H

#include "mox/compiler.h"

#include <stddef.h>

MOX_EXTERN_C_BEGIN

/* Runtime codes (positive; functions return them negated). */
enum mox_err_code {
    MOX_EPERM = 1,       /* not permitted */
    MOX_EAGAIN = 3,      /* try again */
    MOX_ENOMEM = 5,      /* out of memory */
    MOX_ENOENT = 8,      /* not found */
    MOX_ENOTDIR = 9,     /* not a directory */
    MOX_EISDIR = 10,     /* is a directory */
    MOX_ENOSPC = 12,     /* no space left */
    MOX_ECANCELED = 20,  /* cancelled */
    MOX_EEMPTY = 27,     /* empty */
    MOX_EMALFORMED = 29, /* malformed data */
    MOX_EINVAL = 30,     /* invalid argument */
    MOX_EBUSY = 40,      /* busy */
    MOX_ECONNREFUSED = 50,
    MOX_ECONNRESET = 51,
    MOX_ENOTCONN = 52,
    MOX_EPROTO = 60,     /* protocol error */
    MOX_EAUTH = 61,      /* authentication failed */
    MOX_EEXIST = 70,     /* already exists */
    MOX_EIO = 80,        /* I/O error */
    MOX_ETIMEDOUT = 110, /* timed out */
    MOX_EUNKNOWN = 255   /* an error without a closer code */
};

/* The text of a positive runtime code; never null. */
const char *mox_strerror(int code);

/* Maps a positive errno value (or 0) to a positive runtime code (0 for 0). */
int mox_errno_to_err(int err);

/* The system's text for a positive errno value, written into `buf` (always
 * NUL-terminated). Returns `buf`. */
char *mox_sys_strerror_r(int err, char *buf, size_t size);

MOX_EXTERN_C_END

#endif
