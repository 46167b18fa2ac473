// Configuration getters with defaults, flags and 128-bit identifiers.
#include "mox/errors.h"
#include "utils/mox_helpers.h"

#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

struct FlagWord {
    const char *word;
    int32_t value;
};

constexpr FlagWord kFlagWords[] = {
    {"1", 1}, {"y", 1}, {"yes", 1}, {"0", 0}, {"n", 0}, {"no", 0},
};

constexpr size_t kMsridHalfDigits = 16;

// One half of an msrid: all 16 characters must make the number.
bool parse_msrid_half(const char *digits, uint64_t *out)
{
    char half[kMsridHalfDigits + 1];
    memcpy(half, digits, kMsridHalfDigits);
    half[kMsridHalfDigits] = '\0';
    char *end = nullptr;
    *out = strtoull(half, &end, 16);
    return end == half + kMsridHalfDigits;
}

} // namespace

extern "C" {

int mox_config_getuint_def(const mox_config *cfg, const char *key, void *out, size_t size,
                           uint64_t def)
{
    if (size == 0 || size > sizeof def)
        return -MOX_EINVAL;
    int rc = mox_config_getuint(cfg, key, out, size);
    if (rc != -MOX_ENOENT)
        return rc;
    // The low-order bytes of the default, wherever the host keeps them.
    const auto *bytes = reinterpret_cast<const unsigned char *>(&def);
    if constexpr (std::endian::native == std::endian::big)
        bytes += sizeof def - size;
    memcpy(out, bytes, size);
    return 0;
}

int mox_config_getstr_def(const mox_config *cfg, const char *key, const char **value,
                          const char *def)
{
    int rc = mox_config_getstr(cfg, key, value);
    if (rc != -MOX_ENOENT)
        return rc;
    *value = def;
    return 0;
}

int mox_config_getflag(const mox_config *cfg, const char *key, int32_t *flag)
{
    const char *value = nullptr;
    int rc = mox_config_getstr(cfg, key, &value);
    if (rc != 0)
        return rc;
    for (const auto &w : kFlagWords) {
        if (strcmp(value, w.word) == 0) {
            *flag = w.value;
            return 0;
        }
    }
    return -MOX_EINVAL;
}

int mox_config_getflag_def(const mox_config *cfg, const char *key, int32_t *flag, int32_t def)
{
    int rc = mox_config_getflag(cfg, key, flag);
    if (rc != -MOX_ENOENT)
        return rc;
    *flag = def;
    return 0;
}

int mox_config_setmsrid(mox_config *cfg, const char *key, const uint64_t id[2])
{
    char text[2 * kMsridHalfDigits + 1];
    snprintf(text, sizeof text, "%016llx%016llx", static_cast<unsigned long long>(id[0]),
             static_cast<unsigned long long>(id[1]));
    return mox_config_setstr(cfg, key, text);
}

int mox_config_getmsrid(const mox_config *cfg, const char *key, uint64_t id[2])
{
    const char *value = nullptr;
    int rc = mox_config_getstr(cfg, key, &value);
    if (rc != 0)
        return rc;
    if (strlen(value) != 2 * kMsridHalfDigits)
        return -MOX_EMALFORMED;
    for (size_t i = 0; i < 2; ++i) {
        if (!parse_msrid_half(value + i * kMsridHalfDigits, &id[i]))
            return -MOX_EMALFORMED;
    }
    return 0;
}

} // extern "C"
