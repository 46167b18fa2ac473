/* Compiled as C: the library's header must serve C programs as they are. */
#include "fes_utils/fes_utils.h"

#include <stddef.h>

int tarn_fes_utils_c_check(void)
{
    return offsetof(dirlist_entry, link) == 0 && fes_check_path("/a") == 0 &&
           fes_is_reserved_name("a") == 0;
}
