// The small helpers: coroutine sleeps, named children and time-limited
// stretches, configuration getters with defaults, flags and msrids, the
// string hash and the memory and path tests; and the C interface.
#include "co_runner.h"
#include "mox/mox.h"
#include "utils/utils.h"

#include <cerrno>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <tuple>

extern "C" int tarn_utils_c_check(void);

using tarn_test::run_in_coroutine;

namespace
{

int32_t record_ctx_id(mox_co *co, void *arg)
{
    const char *id = mox_context_get_id(mox_co_get_ctx(co));
    *static_cast<std::string *>(arg) = std::string(mox_co_get_name(co)) + "|" + (id ? id : "-");
    return 0;
}

int32_t call_fn(mox_co *, void *arg)
{
    (*static_cast<std::function<void()> *>(arg))();
    return 0;
}

TEST(CInterface, HeaderServesCPrograms)
{
    EXPECT_EQ(tarn_utils_c_check(), 1);
}

TEST(CoHelpers, SleepsNamedChildrenAndTimeLimitedStretches)
{
    run_in_coroutine([] {
        EXPECT_EQ(mox_co_sleep(0), 0);
        mox_context *ctx = mox_context_set_id(mox_context_alloc(), "job-7/");
        mox_co_set_ctx(ctx);
        std::function<void()> canceller = [ctx] {
            mox_co_sleep(20);
            mox_context_cancel(ctx);
        };
        mox_co_create(nullptr, call_fn, &canceller);
        EXPECT_EQ(mox_co_sleep_cancelable(60000), -ECANCELED);
        EXPECT_EQ(mox_co_sleep(10), 0); // the plain sleep does not watch for cancellation

        // A child's id joins its parent's and its own name, cut to 127 bytes.
        mox_context *anonymous = mox_context_alloc();
        std::string seen[4];
        mox_co *cos[] = {
            mox_co_create_child(ctx, record_ctx_id, &seen[0], "sub_%d", 3),
            mox_co_create_child(anonymous, record_ctx_id, &seen[1], "sub"),
            mox_co_create_child(nullptr, record_ctx_id, &seen[2], "%s", "top"),
            mox_co_create_child(ctx, record_ctx_id, &seen[3], "%s", std::string(300, 'x').c_str())};
        // The children hold their own references.
        mox_co_set_ctx(nullptr);
        mox_context_put(ctx);
        mox_context_put(anonymous);
        for (mox_co *co : cos)
            mox_co_join(co);
        EXPECT_EQ(seen[0] + " " + seen[1] + " " + seen[2],
                  "job-7/sub_3|job-7/sub_3 sub|sub top|top");
        EXPECT_EQ(seen[3].substr(seen[3].find('|')), "|job-7/" + std::string(127, 'x'));

        // The stretch ends by its own deadline; the old context comes back.
        for (const char *outer_id : {"outer", static_cast<const char *>(nullptr)}) {
            mox_context *outer =
                outer_id ? mox_context_set_id(mox_context_alloc(), outer_id) : nullptr;
            mox_co_set_ctx(outer);
            if (outer)
                mox_context_put(outer);
            mox_context *prev = mox_co_ctx_move_to_child(30);
            EXPECT_EQ(prev, outer);
            EXPECT_NE(mox_co_get_ctx(mox_current_co()), outer);
            int32_t ms = 60000;
            EXPECT_EQ(mox_co_wait_timeout(&ms), -ETIMEDOUT);
            mox_co_ctx_move_from_child(prev);
            EXPECT_EQ(mox_co_get_ctx(mox_current_co()), outer);
            EXPECT_EQ(mox_co_check_ctx(), 0);
            if (outer) {
                EXPECT_STREQ(mox_context_get_id(outer), "outer"); // the reference came back
            }
            mox_co_set_ctx(nullptr);
        }
    });
}

TEST(ConfigHelpers, FlagsAndDefaults)
{
    mox_config *cfg = mox_read_config_mem("n = 300\nbad = x\ns = value\n");
    const std::pair<const char *, int32_t> flags[] = {
        {"1", 1},  {"y", 1},     {"yes", 1},    {"0", 0},  {"n", 0},
        {"no", 0}, {"Yes", -30}, {"true", -30}, {"", -30}, {"yes!", -30}};
    for (const auto &[value, want] : flags) {
        ASSERT_EQ(mox_config_setstr(cfg, "f", value), 0);
        int32_t flag = 42, flag_def = 42;
        EXPECT_EQ(mox_config_getflag(cfg, "f", &flag), want < 0 ? want : 0) << value;
        EXPECT_EQ(mox_config_getflag_def(cfg, "f", &flag_def, 7), want < 0 ? want : 0) << value;
        EXPECT_EQ(flag, want < 0 ? 42 : want) << value;
        EXPECT_EQ(flag_def, flag) << value;
    }
    int32_t flag = 42;
    EXPECT_EQ(mox_config_getflag(cfg, "absent", &flag), -8);
    EXPECT_EQ(mox_config_getflag_def(cfg, "absent", &flag, 7), 0);
    EXPECT_EQ(flag, 7);
    // The default is cut to the target's width; a present key is read as it is.
    const uint64_t def = 0x1122334455667788ull;
    const std::tuple<const char *, size_t, int, uint64_t> uints[] = {
        {"absent", 1, 0, 0x88}, {"absent", 8, 0, def},  {"n", 8, 0, 300},     {"n", 1, -30, 0},
        {"bad", 8, -30, 0},     {"absent", 16, -30, 0}, {"absent", 0, -30, 0}};
    for (const auto &[key, size, rc, bits] : uints) {
        uint64_t out[2] = {0, 0};
        EXPECT_EQ(mox_config_getuint_def(cfg, key, out, size, def), rc) << key << "/" << size;
        EXPECT_EQ(out[0], bits) << key << "/" << size;
    }
    const char *def_text = "fallback", *value = nullptr;
    EXPECT_EQ(mox_config_getstr_def(cfg, "absent", &value, def_text), 0);
    EXPECT_EQ(value, def_text); // the default pointer itself
    EXPECT_EQ(mox_config_getstr_def(cfg, "s", &value, def_text), 0);
    EXPECT_STREQ(value, "value");
    mox_free_config(cfg);
}

TEST(ConfigHelpers, MsridsRoundTripAndMalformedOnesAreRefused)
{
    mox_config *cfg = mox_create_config();
    const uint64_t ids[][2] = {{0xab, 0xcd}, {~0ull, ~0ull}};
    const char *texts[] = {"00000000000000ab00000000000000cd", "ffffffffffffffffffffffffffffffff"};
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(mox_config_setmsrid(cfg, "id", ids[i]), 0);
        const char *text = nullptr;
        ASSERT_EQ(mox_config_getstr(cfg, "id", &text), 0);
        EXPECT_STREQ(text, texts[i]); // element 0 first, zero-padded
        uint64_t back[2] = {7, 7};
        EXPECT_EQ(mox_config_getmsrid(cfg, "id", back), 0) << text;
        EXPECT_EQ(back[0], ids[i][0]);
        EXPECT_EQ(back[1], ids[i][1]);
    }
    for (const char *bad : {"0123456789abcdef0123456789abcde",     // 31 characters
                            "0123456789abcdeg0123456789abcdef",    // bad first half
                            "0123456789abcdef0123456789abcdeg"}) { // bad second half
        ASSERT_EQ(mox_config_setstr(cfg, "id", bad), 0) << bad;
        uint64_t id[2];
        EXPECT_EQ(mox_config_getmsrid(cfg, "id", id), -29) << bad;
    }
    uint64_t id[2];
    EXPECT_EQ(mox_config_getmsrid(cfg, "absent", id), -8);
    mox_free_config(cfg);
}

TEST(Hashes, K33ZeroMemoryAndAbsolutePaths)
{
    const std::pair<const char *, uint64_t> k33[] = {
        {"", 5381},
        {"ab", 5863208},
        {"quillon-tarn-ctl", 4863275785996252987ull}, // wraps modulo 2^64
        {"\xE9", 5381 * 33 - 23},                     // high bytes count as negative
    };
    for (const auto &[str, hash] : k33)
        EXPECT_EQ(k33_hash(str), hash) << str;
    // A non-zero byte anywhere, in the words and in the tail, at any alignment.
    alignas(8) unsigned char storage[48] = {};
    for (unsigned char *buf : {storage + 8, storage + 11}) {
        buf[-1] = buf[17] = 1; // just outside the range tested
        for (uint32_t pos = 0; pos < 17; ++pos) {
            EXPECT_EQ(is_zero_mem(buf, pos), 1) << pos;
            buf[pos] = 0x80;
            EXPECT_EQ(is_zero_mem(buf, 17), 0) << pos;
            buf[pos] = 0;
        }
        buf[-1] = buf[17] = 0;
    }
    for (const char *path : {"/", "//x"})
        EXPECT_EQ(is_absolute_path(path), 1) << path;
    for (const char *path : {"", "var/lib", " /x"})
        EXPECT_EQ(is_absolute_path(path), 0) << path;
}

} // namespace
