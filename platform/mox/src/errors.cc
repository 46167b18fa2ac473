// The one place where errno values become runtime codes, and their texts.
#include "mox/errors.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

extern "C" {

const char *mox_strerror(int code)
{
    if (code < 0)
        code = -code;
    switch (code) {
    case 0:
        return "success";
    case MOX_EPERM:
        return "operation not permitted";
    case MOX_EAGAIN:
        return "resource temporarily unavailable";
    case MOX_ENOMEM:
        return "out of memory";
    case MOX_ENOENT:
        return "not found";
    case MOX_ENOTDIR:
        return "not a directory";
    case MOX_EISDIR:
        return "is a directory";
    case MOX_ENOSPC:
        return "no space left";
    case MOX_ECANCELED:
        return "cancelled";
    case MOX_EEMPTY:
        return "empty";
    case MOX_EMALFORMED:
        return "malformed data";
    case MOX_EINVAL:
        return "invalid argument";
    case MOX_EBUSY:
        return "busy";
    case MOX_ECONNREFUSED:
        return "connection refused";
    case MOX_ECONNRESET:
        return "connection reset";
    case MOX_ENOTCONN:
        return "not connected";
    case MOX_EPROTO:
        return "protocol error";
    case MOX_EAUTH:
        return "authentication failed";
    case MOX_EEXIST:
        return "already exists";
    case MOX_EIO:
        return "I/O error";
    case MOX_ETIMEDOUT:
        return "timed out";
    // The gateway client hands transport failures back as negated errno
    // values; the ones it produces get their own words.
    case ECONNRESET:
        return "connection reset by peer";
    case ECONNREFUSED:
        return "connection refused";
    case EHOSTUNREACH:
        return "host unreachable";
    case ECANCELED:
        return "cancelled";
    default:
        return "unknown error";
    }
}

int mox_errno_to_err(int err)
{
    switch (err) {
    case 0:
        return 0;
    case EPERM:
    case EACCES:
    case EROFS:
        return MOX_EPERM;
    case EAGAIN:
    case EINTR:
        return MOX_EAGAIN;
    case ENOMEM:
        return MOX_ENOMEM;
    case ENOENT:
    case ESRCH:
        return MOX_ENOENT;
    case ENOTDIR:
        return MOX_ENOTDIR;
    case EISDIR:
        return MOX_EISDIR;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
        return MOX_ENOSPC;
    case ECANCELED:
        return MOX_ECANCELED;
    case EINVAL:
    case ENAMETOOLONG:
    case EBADF:
        return MOX_EINVAL;
    case EBUSY:
    case ETXTBSY:
        return MOX_EBUSY;
    case ECONNREFUSED:
        return MOX_ECONNREFUSED;
    case ECONNRESET:
    case EPIPE:
    case ECONNABORTED:
        return MOX_ECONNRESET;
    case ENOTCONN:
        return MOX_ENOTCONN;
    case EPROTO:
        return MOX_EPROTO;
    case EEXIST:
    case ENOTEMPTY:
        return MOX_EEXIST;
    case EIO:
        return MOX_EIO;
    case ETIMEDOUT:
        return MOX_ETIMEDOUT;
    default:
        return MOX_EUNKNOWN;
    }
}

char *mox_sys_strerror_r(int err, char *buf, size_t size)
{
    if (size == 0)
        return buf;
    // The GNU strerror_r may return a static string instead of filling buf.
    const char *text = strerror_r(err, buf, size);
    if (text != buf)
        snprintf(buf, size, "%s", text);
    return buf;
}

} // extern "C"
