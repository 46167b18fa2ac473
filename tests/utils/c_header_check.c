/* Compiled as C: the library's header must serve C programs as they are. */
#include "mox/alloc.h"
#include "utils/utils.h"

#include <string.h>

int tarn_utils_c_check(void)
{
    char *secret = generate_hmac_secret(8);
    int ok = strlen(secret) == 8;
    __mox_free(secret);

    unsigned char digest[TARN_SHA256_LEN];
    calculate_sha("", 0, digest);
    ok = ok && digest[0] == 0xe3 && digest[31] == 0x55;
    ok = ok && k33_hash("a") == 177670u && is_absolute_path("/x") && is_zero_mem("\0\0", 2);

    mox_config *cfg = mox_read_config_mem("on = yes\n");
    int32_t flag = 0;
    ok = ok && mox_config_getflag(cfg, "on", &flag) == 0 && flag == 1;
    mox_free_config(cfg);

    keepalive_entry entry;
    keepalive_list list;
    memset(&list, 0, sizeof list);
    keepalive_init(&entry, &list);
    ok = ok && entry.list == &list && entry.link.next == &entry.link;
    return ok;
}
