// Configuration getters with defaults, flags and msrids.
#include "mox/alloc.h"
#include "mox/config.h"
#include "utils/mox_helpers.h"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace
{

struct ConfigDeleter {
    void operator()(mox_config *cfg) const { mox_free_config(cfg); }
};
using Config = std::unique_ptr<mox_config, ConfigDeleter>;

Config config_of(const char *text)
{
    Config cfg(mox_read_config_mem(text));
    EXPECT_NE(cfg, nullptr) << text;
    return cfg;
}

TEST(ConfigFlag, AcceptsExactlyTheSixWords)
{
    struct Case {
        const char *value;
        int rc;
        int32_t flag;
    };
    const Case cases[] = {
        {"1", 0, 1},       {"y", 0, 1},       {"yes", 0, 1},    {"0", 0, 0},
        {"n", 0, 0},       {"no", 0, 0},      {"Yes", -30, 42}, {"NO", -30, 42},
        {"Y", -30, 42},    {"true", -30, 42}, {"on", -30, 42},  {"", -30, 42},
        {"yes!", -30, 42}, {"00", -30, 42},   {"ye", -30, 42},  {"no no", -30, 42},
    };
    for (const auto &c : cases) {
        Config cfg(mox_create_config());
        ASSERT_EQ(mox_config_setstr(cfg.get(), "f", c.value), 0) << c.value;
        int32_t flag = 42;
        EXPECT_EQ(mox_config_getflag(cfg.get(), "f", &flag), c.rc) << '"' << c.value << '"';
        EXPECT_EQ(flag, c.flag) << '"' << c.value << '"';
        flag = 42;
        EXPECT_EQ(mox_config_getflag_def(cfg.get(), "f", &flag, 7), c.rc) << c.value;
        EXPECT_EQ(flag, c.flag) << c.value;
    }
}

TEST(ConfigFlag, AbsentKeyIsNotFoundOrTheDefault)
{
    Config cfg = config_of("other = yes\n");
    int32_t flag = 42;
    EXPECT_EQ(mox_config_getflag(cfg.get(), "f", &flag), -8);
    EXPECT_EQ(flag, 42);
    EXPECT_EQ(mox_config_getflag_def(cfg.get(), "f", &flag, 0), 0);
    EXPECT_EQ(flag, 0);
    EXPECT_EQ(mox_config_getflag_def(cfg.get(), "f", &flag, 1), 0);
    EXPECT_EQ(flag, 1);
}

TEST(ConfigUintDefault, AbsentKeyStoresTheDefaultCutToTheTargetWidth)
{
    Config cfg = config_of("n = 300\n");
    const uint64_t def = 0x1122334455667788ull;
    uint8_t u8 = 0;
    uint16_t u16 = 0;
    uint32_t u32 = 0;
    uint64_t u64 = 0;
    EXPECT_EQ(mox_config_getuint_def(cfg.get(), "absent", &u8, 1, def), 0);
    EXPECT_EQ(mox_config_getuint_def(cfg.get(), "absent", &u16, 2, def), 0);
    EXPECT_EQ(mox_config_getuint_def(cfg.get(), "absent", &u32, 4, def), 0);
    EXPECT_EQ(mox_config_getuint_def(cfg.get(), "absent", &u64, 8, def), 0);
    EXPECT_EQ(u8, 0x88u);
    EXPECT_EQ(u16, 0x7788u);
    EXPECT_EQ(u32, 0x55667788u);
    EXPECT_EQ(u64, def);
}

TEST(ConfigUintDefault, PresentKeyBehavesAsThePlainGetter)
{
    Config cfg = config_of("n = 300\nbad = x\n");
    uint32_t u32 = 0;
    EXPECT_EQ(mox_config_getuint_def(cfg.get(), "n", &u32, 4, 5), 0);
    EXPECT_EQ(u32, 300u);
    uint8_t u8 = 9;
    EXPECT_EQ(mox_config_getuint_def(cfg.get(), "n", &u8, 1, 5), -30); // out of range
    EXPECT_EQ(u8, 9u);
    EXPECT_EQ(mox_config_getuint_def(cfg.get(), "bad", &u32, 4, 5), -30);
    uint64_t wide[2] = {0, 0};
    EXPECT_EQ(mox_config_getuint_def(cfg.get(), "absent", wide, 16, 5), -30);
    EXPECT_EQ(wide[0], 0u);
}

TEST(ConfigStrDefault, AbsentKeyGivesTheDefaultPointerItself)
{
    Config cfg = config_of("s = value\n");
    const char *def = "fallback";
    const char *value = nullptr;
    EXPECT_EQ(mox_config_getstr_def(cfg.get(), "absent", &value, def), 0);
    EXPECT_EQ(value, def);
    EXPECT_EQ(mox_config_getstr_def(cfg.get(), "s", &value, def), 0);
    EXPECT_STREQ(value, "value");
    EXPECT_EQ(mox_config_getstr_def(cfg.get(), "absent", &value, nullptr), 0);
    EXPECT_EQ(value, nullptr);
}

TEST(Msrid, RoundTripsThroughTheStore)
{
    const uint64_t ids[][2] = {
        {0, 0},
        {1, 2},
        {0xffffffffffffffffull, 0xffffffffffffffffull},
        {0x0123456789abcdefull, 0xfedcba9876543210ull},
    };
    for (const auto &id : ids) {
        Config cfg(mox_create_config());
        ASSERT_EQ(mox_config_setmsrid(cfg.get(), "id", id), 0);
        const char *text = nullptr;
        ASSERT_EQ(mox_config_getstr(cfg.get(), "id", &text), 0);
        EXPECT_EQ(strlen(text), 32u) << text;
        EXPECT_EQ(std::string(text).find_first_not_of("0123456789abcdef"), std::string::npos);
        uint64_t back[2] = {7, 7};
        EXPECT_EQ(mox_config_getmsrid(cfg.get(), "id", back), 0) << text;
        EXPECT_EQ(back[0], id[0]);
        EXPECT_EQ(back[1], id[1]);
    }
    Config cfg(mox_create_config());
    const uint64_t id[2] = {0xab, 0xcd};
    ASSERT_EQ(mox_config_setmsrid(cfg.get(), "id", id), 0);
    const char *text = nullptr;
    ASSERT_EQ(mox_config_getstr(cfg.get(), "id", &text), 0);
    EXPECT_STREQ(text, "00000000000000ab00000000000000cd"); // element 0 first, zero-padded
}

TEST(Msrid, RejectsMalformedStrings)
{
    struct Case {
        const char *value;
        int rc;
        uint64_t first; // element 0 after the call: a half is stored before it is checked
    };
    const Case cases[] = {
        {"0123456789abcdef0123456789abcde", -29, 7},   // 31 characters
        {"0123456789abcdef0123456789abcdef0", -29, 7}, // 33 characters
        {"", -29, 7},
        {"0123456789abcdeg0123456789abcdef", -29, 0x0123456789abcdeull},  // bad first half
        {"0123456789abcdef0123456789abcdeg", -29, 0x0123456789abcdefull}, // bad second half
        {"0123456789ABCDEF0123456789abcdef", 0, 0x0123456789abcdefull},   // strtoull rules
        {"0x23456789abcdef0123456789abcdef", 0, 0x23456789abcdefull},
    };
    for (const auto &c : cases) {
        Config cfg(mox_create_config());
        ASSERT_EQ(mox_config_setstr(cfg.get(), "id", c.value), 0) << c.value;
        uint64_t id[2] = {7, 7};
        EXPECT_EQ(mox_config_getmsrid(cfg.get(), "id", id), c.rc) << c.value;
        EXPECT_EQ(id[0], c.first) << c.value;
    }
    Config cfg(mox_create_config());
    uint64_t id[2] = {7, 7};
    EXPECT_EQ(mox_config_getmsrid(cfg.get(), "absent", id), -8);
}

} // namespace
