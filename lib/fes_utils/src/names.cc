// The name rules of listings. This gateway reserves no names and refuses
// no paths; the listing already handles both answers.
#include "fes_utils/fes_utils.h"

extern "C" {

int fes_check_path(const char *path)
{
    (void)path;
    return 0;
}

int fes_is_reserved_name(const char *name)
{
    (void)name;
    return 0;
}

} // extern "C"
