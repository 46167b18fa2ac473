// The small helpers: coroutine sleeps, named children and time-limited
// stretches, configuration getters with defaults, flags and msrids, the
// string hash and the memory and path tests, info files and parent
// directories through the coroutine file operations; and the C interface.
#include "co_runner.h"
#include "mox/mox.h"
#include "sandbox.h"
#include "utils/info_file.h"
#include "utils/utils.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <tuple>

extern "C" int tarn_utils_c_check(void);

using tarn_test::run_in_coroutine;
using tarn_test::Sandbox;

namespace
{

int32_t record_ctx_id(mox_co *co, void *arg)
{
    const char *id = mox_context_get_id(mox_co_get_ctx(co));
    *static_cast<std::string *>(arg) = std::string(mox_co_get_name(co)) + "|" + (id ? id : "-");
    return 0;
}

TEST(CoHelpers, SleepsNamedChildrenAndTimeLimitedStretches)
{
    run_in_coroutine([] {
        EXPECT_EQ(mox_co_sleep(0), 0);
        mox_context *ctx = mox_context_set_id(mox_context_alloc(), "job-7/");
        mox_co_set_ctx(ctx);
        mox_co_create(
            nullptr,
            [](mox_co *, void *c) {
                mox_co_sleep(20);
                mox_context_cancel(static_cast<mox_context *>(c));
                return 0;
            },
            ctx);
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
        EXPECT_EQ(seen[0] + " " + seen[1] + " " + seen[2] + " " + seen[3].substr(seen[3].find('|')),
                  "job-7/sub_3|job-7/sub_3 sub|sub top|top |job-7/" + std::string(127, 'x'));

        // The stretch ends by its own deadline; the old context comes back.
        for (const char *outer_id : {"outer", static_cast<const char *>(nullptr)}) {
            mox_context *outer =
                outer_id ? mox_context_set_id(mox_context_alloc(), outer_id) : nullptr;
            mox_co_set_ctx(outer);
            mox_context_put(outer); // the coroutine keeps it
            mox_context *prev = mox_co_ctx_move_to_child(30);
            EXPECT_NE(mox_co_get_ctx(mox_current_co()), outer);
            int32_t ms = 60000;
            EXPECT_EQ(mox_co_wait_timeout(&ms), -ETIMEDOUT);
            mox_co_ctx_move_from_child(prev);
            EXPECT_EQ(prev, outer);
            EXPECT_EQ(mox_co_get_ctx(mox_current_co()), outer);
            EXPECT_EQ(mox_co_check_ctx(), 0);
            EXPECT_TRUE(!outer || strcmp(mox_context_get_id(outer), "outer") == 0);
            mox_co_set_ctx(nullptr);
        }
    });
}

TEST(ConfigHelpers, FlagsDefaultsAndMsrids)
{
    mox_config *cfg = mox_read_config_mem("n = 300\nbad = x\ns = value\n");
    // Each word as "rc/flag rc/flag" of the plain getter and the one with a default.
    std::string got;
    // The last row reads an absent key.
    for (const char *value : {"1", "y", "yes", "0", "n", "no", "Yes", "true", "", "yes!", "-"}) {
        const char *key = strcmp(value, "-") != 0 ? "f" : "absent";
        ASSERT_EQ(mox_config_setstr(cfg, "f", value), 0);
        int32_t flag = 42, flag_def = 42;
        int rc = mox_config_getflag(cfg, key, &flag);
        int rc_def = mox_config_getflag_def(cfg, key, &flag_def, 7);
        got += std::to_string(rc) + "/" + std::to_string(flag) + " " + std::to_string(rc_def) +
               "/" + std::to_string(flag_def) + ",";
    }
    EXPECT_EQ(got, "0/1 0/1,0/1 0/1,0/1 0/1,0/0 0/0,0/0 0/0,0/0 0/0,-30/42 -30/42,-30/42 -30/42,"
                   "-30/42 -30/42,-30/42 -30/42,-8/42 0/7,");
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
    // The default pointer itself, then a present value.
    EXPECT_TRUE(mox_config_getstr_def(cfg, "absent", &value, def_text) == 0 && value == def_text);
    EXPECT_TRUE(mox_config_getstr_def(cfg, "s", &value, def_text) == 0 &&
                strcmp(value, "value") == 0);

    // Msrids: element 0 first, zero-padded, and back.
    const uint64_t ids[][2] = {{0xab, 0xcd}, {~0ull, ~0ull}};
    const char *texts[] = {"00000000000000ab00000000000000cd", "ffffffffffffffffffffffffffffffff"};
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(mox_config_setmsrid(cfg, "id", ids[i]), 0);
        uint64_t back[2] = {7, 7};
        EXPECT_TRUE(mox_config_getmsrid(cfg, "id", back) == 0 && back[0] == ids[i][0] &&
                    back[1] == ids[i][1] && mox_config_getstr(cfg, "id", &value) == 0 &&
                    strcmp(value, texts[i]) == 0)
            << texts[i];
    }
    uint64_t id[2];
    EXPECT_EQ(mox_config_getmsrid(cfg, "absent", id), -8);
    // 31 characters, a bad first half, a bad second half.
    for (const char *bad : {"0123456789abcdef0123456789abcde", "0123456789abcdeg0123456789abcdef",
                            "0123456789abcdef0123456789abcdeg"}) {
        ASSERT_EQ(mox_config_setstr(cfg, "id", bad), 0) << bad;
        EXPECT_EQ(mox_config_getmsrid(cfg, "id", id), -29) << bad;
    }
    mox_free_config(cfg);
}

TEST(Hashes, K33ZeroMemoryAbsolutePathsAndTheCInterface)
{
    EXPECT_EQ(tarn_utils_c_check(), 1);
    // The long one wraps modulo 2^64; high bytes count as negative.
    const std::pair<const char *, uint64_t> k33[] = {{"", 5381},
                                                     {"ab", 5863208},
                                                     {"quillon-tarn-ctl", 4863275785996252987ull},
                                                     {"\xE9", 5381 * 33 - 23}};
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
    std::string absolute;
    for (const char *path : {"/", "//x", "", "var/lib", " /x"})
        absolute += std::to_string(is_absolute_path(path));
    EXPECT_EQ(absolute, "11000");
}

constexpr const char *kMagic = "tarn.test-info.1";

// Runs `fn` in a coroutine with `path` open; the file is closed afterwards.
void with_file(const std::string &path, int flags, const std::function<void(mox_co_file *)> &fn)
{
    run_in_coroutine([&] {
        mox_co_file *f = nullptr;
        ASSERT_EQ(mox_co_file_open(path.c_str(), flags, 0600, &f), 0) << path;
        fn(f);
        mox_co_file_close(f);
    });
}

// Writes `text` to `path` as an info file with the test's magic.
int write_info(const std::string &path, const char *text, uint32_t size, int flags = O_WRONLY)
{
    int rc = 1;
    with_file(path, flags | O_CREAT, [&](mox_co_file *f) {
        mox_config *cfg = mox_read_config_mem(text);
        rc = info_file_write(path.c_str(), f, kMagic, size, cfg);
        mox_free_config(cfg);
    });
    return rc;
}

// Parses `path`; the store, or null with `*rc` set.
mox_config *parse_info(const std::string &path, uint32_t size, int *rc)
{
    mox_config *cfg = nullptr;
    with_file(path, O_RDONLY,
              [&](mox_co_file *f) { *rc = info_file_parse(path.c_str(), f, kMagic, size, &cfg); });
    return cfg;
}

TEST(InfoFile, WriteThenParseAndAShorterRewrite)
{
    Sandbox sb;
    std::string path = sb.path("obj.info"), long_value(300, 'v');
    ASSERT_EQ(write_info(path, ("a = 1\nb = " + long_value + "\n").c_str(), 400), 0);
    // A smaller record size than the file: the file's own size wins, and
    // the old text is covered by blanks and a last newline.
    ASSERT_EQ(write_info(path, "a = 2\n", 64), 0);
    std::string content = sb.read_file("obj.info");
    EXPECT_TRUE(content.size() == 400 && content.back() == '\n' &&
                content.find(".type = tarn.test-info.1\n") != std::string::npos &&
                content.find(long_value) == std::string::npos)
        << content;
    int rc = 1;
    mox_config *cfg = parse_info(path, 64, &rc);
    ASSERT_EQ(rc, 0);
    int64_t mtime = 0;
    EXPECT_EQ(mox_config_getint(cfg, ".mtime_ms", &mtime, 8), 0);
    EXPECT_TRUE(mtime > 0 && mtime <= get_real_time_ms()) << mtime;
    mox_config_unset(cfg, ".mtime_ms");
    char *text = mox_write_config_mem(cfg); // the pairs without the magic
    EXPECT_STREQ(text, "a = 2\n");
    mox_free(text);
    mox_free_config(cfg);
    // A record of exactly the text's length (the time stamp keeps its width) has no padding.
    size_t exact = content.find_last_not_of(" \n") + 2;
    ASSERT_EQ(write_info(path = sb.path("exact.info"), "a = 2\n", exact), 0);
    content = sb.read_file("exact.info");
    EXPECT_TRUE(content.size() == exact && content.find(" \n") == std::string::npos) << content;
    // A write that fails is logged and mapped.
    testing::internal::CaptureStderr();
    EXPECT_EQ(write_info(path, "k = v\n", 64, O_RDONLY), -mox_errno_to_err(EBADF));
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("info_file_write: failed to write '" + path + "': -9 (Bad file descriptor)"),
              std::string::npos)
        << err;
}

TEST(InfoFile, ParseRefusesWhatIsNotItsOwnText)
{
    // The content ("/": the path is a directory), the expected size, the
    // result and the message after "info_file_<op>: ", % for the path.
    const std::string magic = ".type = tarn.test-info.1\n";
    const std::tuple<std::string, uint32_t, int, std::string> rows[] = {
        {".type = tarn.test-info.1 \t\n\v\f\r\n  ", 64, 0, ""},
        {".type = tarn.test-info.10\n", 64, -29,
         "parse: '%' has invalid magic 'tarn.test-info.10' (expected 'tarn.test-info.1')"},
        {"k = v\n", 64, -29, "parse: failed to get magic for '%': -8 (not found)"},
        {"this is not a configuration\n", 64, -29,
         "parse: the content of '%' is not a mox_config file"},
        {" \n\n \t\n", 64, -27, ""},
        {"/", 64, -MOX_EISDIR, ""},
        // A file that fills the buffer may have more: refused.
        {magic + std::string(4196 - magic.size(), ' '), 100, -29,
         "read: read from '%' filled all buffer of size 4196; possibly have unread data"},
        {magic + std::string(11999 - magic.size(), ' '), 6000, 0, ""},
    };
    for (const auto &[content, size, want_rc, message] : rows) {
        SCOPED_TRACE(content.substr(0, 40));
        Sandbox sb;
        std::string path = content == "/" ? sb.mkdir("f") : sb.write_file("f", content);
        testing::internal::CaptureStderr();
        int rc = 1;
        mox_config *cfg = parse_info(path, size, &rc);
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_TRUE(rc == want_rc && (cfg != nullptr) == (want_rc == 0)) << rc;
        mox_free_config(cfg);
        std::string msg = message;
        if (size_t pct = msg.find('%'); pct != std::string::npos)
            msg.replace(pct, 1, path);
        EXPECT_TRUE(msg.empty() || err.find("info_file_" + msg) != std::string::npos) << err;
    }
}

TEST(MkdirParent, CreatesEveryDirectoryButTheLastComponent)
{
    Sandbox sb;
    sb.write_file("plain", "");
    std::string got; // each path twice: existing directories count as created
    testing::internal::CaptureStderr();
    run_in_coroutine([&] {
        for (const char *rel : {"file", "a/", "a/b/c", "x//y/z", "plain/a/f"})
            got += std::to_string(mkdir_parent(sb.dir().c_str(), rel)) + "," +
                   std::to_string(mkdir_parent(sb.dir().c_str(), rel)) + " ";
    });
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(got, "-30,-30 0,0 0,0 0,0 -20,-20 ");
    for (const char *dir : {"a", "a/b", "x/y"}) {
        struct stat st;
        EXPECT_TRUE(stat(sb.path(dir).c_str(), &st) == 0 && st.st_mode == (S_IFDIR | 0700)) << dir;
    }
    EXPECT_FALSE(sb.exists("file") || sb.exists("a/b/c") || sb.exists("x/y/z") ||
                 sb.exists("plain/a"));
    EXPECT_NE(err.find("failed to create a directory '" + sb.path("plain/a") +
                       "': -20 (Not a directory)"),
              std::string::npos)
        << err;
}

} // namespace
