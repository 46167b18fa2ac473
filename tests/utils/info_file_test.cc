// Info files and parent directories through the coroutine file operations.
#include "co_runner.h"
#include "mox/mox.h"
#include "sandbox.h"
#include "utils/info_file.h"

#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

using tarn_test::run_in_coroutine;
using tarn_test::Sandbox;

namespace
{

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

mox_config *config_of(const char *text)
{
    mox_config *cfg = mox_read_config_mem(text);
    EXPECT_NE(cfg, nullptr);
    return cfg;
}

std::string value_of(const mox_config *cfg, const char *key)
{
    const char *v = nullptr;
    return mox_config_getstr(cfg, key, &v) == 0 ? v : "<absent>";
}

// Writes `text` to `path` as an info file with the test's magic.
int write_info(const std::string &path, const char *text, uint32_t size)
{
    int rc = 1;
    with_file(path, O_WRONLY | O_CREAT, [&](mox_co_file *f) {
        mox_config *cfg = config_of(text);
        rc = info_file_write(path.c_str(), f, kMagic, size, cfg);
        mox_free_config(cfg);
    });
    return rc;
}

// Parses `path`; the store, or null with `*rc` set.
mox_config *parse_info(const std::string &path, const char *magic, uint32_t size, int *rc)
{
    mox_config *cfg = nullptr;
    with_file(path, O_RDONLY,
              [&](mox_co_file *f) { *rc = info_file_parse(path.c_str(), f, magic, size, &cfg); });
    return cfg;
}

TEST(InfoFile, WriteThenParseGivesThePairsWithoutTheMagic)
{
    Sandbox sb;
    std::string path = sb.path("obj.info");
    with_file(path, O_WRONLY | O_CREAT, [&](mox_co_file *f) {
        mox_config *cfg = config_of("name = acc\nsize = 12\n");
        EXPECT_EQ(info_file_write(path.c_str(), f, kMagic, 512, cfg), 0);
        EXPECT_EQ(value_of(cfg, ".type"), kMagic); // the caller's store keeps both keys
        EXPECT_NE(value_of(cfg, ".mtime_ms"), "<absent>");
        mox_free_config(cfg);
    });
    std::string content = sb.read_file("obj.info");
    ASSERT_EQ(content.size(), 512u);
    EXPECT_EQ(content.back(), '\n');
    EXPECT_NE(content.find(".type = tarn.test-info.1\n"), std::string::npos) << content;

    int rc = 1;
    mox_config *cfg = parse_info(path, kMagic, 512, &rc);
    ASSERT_EQ(rc, 0);
    ASSERT_NE(cfg, nullptr);
    EXPECT_EQ(mox_config_size(cfg), 3u);
    EXPECT_EQ(value_of(cfg, "name"), "acc");
    EXPECT_EQ(value_of(cfg, "size"), "12");
    EXPECT_EQ(value_of(cfg, ".type"), "<absent>");
    int64_t mtime = 0;
    EXPECT_EQ(mox_config_getint(cfg, ".mtime_ms", &mtime, 8), 0);
    EXPECT_LE(mtime, get_real_time_ms());
    EXPECT_GT(mtime, get_real_time_ms() - 600000);
    mox_free_config(cfg);
}

TEST(InfoFile, ShorterRewriteKeepsTheLengthAndDropsOldPairs)
{
    Sandbox sb;
    std::string path = sb.path("obj.info");
    std::string long_value(300, 'v');
    std::string long_text = "a = 1\nb = " + long_value + "\nc = 3\n";
    ASSERT_EQ(write_info(path, long_text.c_str(), 400), 0);
    ASSERT_EQ(sb.read_file("obj.info").size(), 400u);

    // A smaller record size than the file: the file's own size wins.
    ASSERT_EQ(write_info(path, "a = 2\n", 64), 0);
    std::string content = sb.read_file("obj.info");
    ASSERT_EQ(content.size(), 400u);
    EXPECT_EQ(content.back(), '\n');
    EXPECT_EQ(content.find(long_value), std::string::npos) << "old text shows through";

    int rc = 1;
    mox_config *cfg = parse_info(path, kMagic, 64, &rc);
    ASSERT_EQ(rc, 0);
    EXPECT_EQ(value_of(cfg, "a"), "2");
    EXPECT_EQ(value_of(cfg, "b"), "<absent>");
    EXPECT_EQ(value_of(cfg, "c"), "<absent>");
    mox_free_config(cfg);
}

TEST(InfoFile, RecordOfExactlyTheTextLengthHasNoPadding)
{
    Sandbox sb;
    std::string path = sb.path("obj.info");
    std::string written;
    with_file(path, O_WRONLY | O_CREAT, [&](mox_co_file *f) {
        mox_config *cfg = config_of("k = v\n");
        // The same keys and an mtime of the same width give the same length.
        mox_config_setstr(cfg, ".type", kMagic);
        mox_config_setint(cfg, ".mtime_ms", get_real_time_ms());
        char *text = mox_write_config_mem(cfg);
        auto size = static_cast<uint32_t>(strlen(text));
        mox_free(text);
        EXPECT_EQ(info_file_write(path.c_str(), f, kMagic, size, cfg), 0);
        text = mox_write_config_mem(cfg);
        written = text;
        mox_free(text);
        mox_free_config(cfg);
    });
    EXPECT_EQ(sb.read_file("obj.info"), written);
}

TEST(InfoFileDeathTest, RecordSizeBelowTheTextIsABug)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Sandbox sb;
    std::string path = sb.path("obj.info");
    EXPECT_DEATH(write_info(path, "k = v\n", 8), "at utils:[0-9]+ in pad_string\\(\\)");
}

TEST(InfoFile, WriteFailureIsLoggedAndMapped)
{
    Sandbox sb;
    std::string path = sb.write_file("obj.info", "");
    testing::internal::CaptureStderr();
    int rc = 0;
    with_file(path, O_RDONLY, [&](mox_co_file *f) {
        mox_config *cfg = config_of("k = v\n");
        rc = info_file_write(path.c_str(), f, kMagic, 64, cfg);
        mox_free_config(cfg);
    });
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(rc, -mox_errno_to_err(EBADF));
    EXPECT_NE(err.find("info_file_write: failed to write '" + path + "': -9 (Bad file descriptor)"),
              std::string::npos)
        << err;
}

TEST(InfoFile, ReadRefusesAFileThatFillsTheBuffer)
{
    struct Case {
        uint32_t size;
        size_t buffer;
    };
    const Case cases[] = {{0, 4096}, {100, 4196}, {4096, 8192}, {4097, 8194}, {6000, 12000}};
    for (const auto &c : cases) {
        Sandbox sb;
        std::string body = ".type = " + std::string(kMagic) + "\nk = v\n";
        std::string full = sb.write_file("full", body + std::string(c.buffer - body.size(), ' '));
        std::string less =
            sb.write_file("less", body + std::string(c.buffer - 1 - body.size(), ' '));

        testing::internal::CaptureStderr();
        int rc = 0;
        mox_config *cfg = parse_info(full, kMagic, c.size, &rc);
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(rc, -29) << c.size;
        EXPECT_EQ(cfg, nullptr);
        std::string msg = "info_file_read: read from '" + full + "' filled all buffer of size " +
                          std::to_string(c.buffer) + "; possibly have unread data";
        EXPECT_NE(err.find(msg), std::string::npos) << err;

        cfg = parse_info(less, kMagic, c.size, &rc);
        EXPECT_EQ(rc, 0) << c.size;
        EXPECT_EQ(value_of(cfg, "k"), "v");
        mox_free_config(cfg);
    }
}

TEST(InfoFile, ReadDropsTrailingWhiteSpaceAndEmptyTextDoesNotParse)
{
    struct Case {
        std::string content;
        const char *text;
        int parse_rc;
    };
    const Case cases[] = {
        {".type = tarn.test-info.1 \t\n\v\f\r\n  ", ".type = tarn.test-info.1", 0},
        {"  .type = tarn.test-info.1\n\n", "  .type = tarn.test-info.1", 0},
        {"", "", -27},
        {" \n\n \t\n", "", -27},
        {std::string("\0rest", 5), "", -27}, // the text ends at its first NUL
    };
    for (const auto &c : cases) {
        Sandbox sb;
        std::string path = sb.write_file("f", c.content);
        char *text = nullptr;
        int rc = 1;
        with_file(path, O_RDONLY,
                  [&](mox_co_file *f) { rc = info_file_read(path.c_str(), f, 64, &text); });
        ASSERT_EQ(rc, 0);
        EXPECT_STREQ(text, c.text);
        mox_free(text);
        mox_config *cfg = parse_info(path, kMagic, 64, &rc);
        EXPECT_EQ(rc, c.parse_rc) << c.text;
        EXPECT_EQ(cfg != nullptr, c.parse_rc == 0);
        mox_free_config(cfg);
    }
}

TEST(InfoFile, ParseRefusesWrongMissingMagicAndForeignText)
{
    struct Case {
        const char *content;
        const char *message; // after the path
    };
    const Case cases[] = {
        {".type = tarn.other.1\nk = v\n",
         "' has invalid magic 'tarn.other.1' (expected 'tarn.test-info.1')"},
        {".type = tarn.test-info.10\n",
         "' has invalid magic 'tarn.test-info.10' (expected 'tarn.test-info.1')"},
        {"k = v\n", "failed to get magic for '%': -8 (not found)"},
        {"this is not a configuration\n", "the content of '%' is not a mox_config file"},
    };
    for (const auto &c : cases) {
        Sandbox sb;
        std::string path = sb.write_file("f", c.content);
        testing::internal::CaptureStderr();
        int rc = 0;
        mox_config *cfg = parse_info(path, kMagic, 64, &rc);
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(rc, -29) << c.content;
        EXPECT_EQ(cfg, nullptr);
        std::string msg = c.message;
        size_t pct = msg.find('%');
        if (pct != std::string::npos)
            msg.replace(pct, 1, path);
        else
            msg = "'" + path + msg;
        EXPECT_NE(err.find("info_file_parse: " + msg), std::string::npos) << err;
    }
}

TEST(InfoFile, ReadErrorsAreMappedToRuntimeCodes)
{
    Sandbox sb;
    std::string dir = sb.mkdir("d");
    char *text = nullptr;
    int rc = 0;
    with_file(dir, O_RDONLY | O_DIRECTORY,
              [&](mox_co_file *f) { rc = info_file_read(dir.c_str(), f, 64, &text); });
    EXPECT_EQ(rc, -mox_errno_to_err(EISDIR));
    EXPECT_EQ(text, nullptr);
}

TEST(MkdirParent, CreatesEveryDirectoryButTheLastComponent)
{
    struct Case {
        const char *relpath;
        int rc;
        std::vector<std::string> dirs; // expected afterwards
        std::vector<std::string> absent;
    };
    const Case cases[] = {
        {"file", -30, {}, {"file"}},
        {"a/", 0, {"a"}, {}},
        {"a/b/c", 0, {"a", "a/b"}, {"a/b/c"}},
        {"x//y/z", 0, {"x", "x/y"}, {"x/y/z"}},
    };
    for (const auto &c : cases) {
        Sandbox sb;
        int rc = 1, again = 1;
        run_in_coroutine([&] {
            rc = mkdir_parent(sb.dir().c_str(), c.relpath);
            again = mkdir_parent(sb.dir().c_str(), c.relpath);
        });
        EXPECT_EQ(rc, c.rc) << c.relpath;
        EXPECT_EQ(again, c.rc) << c.relpath << ": existing directories count as created";
        for (const auto &d : c.dirs) {
            struct stat st;
            ASSERT_EQ(stat(sb.path(d).c_str(), &st), 0) << d;
            EXPECT_TRUE(S_ISDIR(st.st_mode));
            EXPECT_EQ(st.st_mode & 0777, 0700u) << d;
        }
        for (const auto &d : c.absent)
            EXPECT_FALSE(sb.exists(d)) << d;
    }
}

TEST(MkdirParent, FailureIsLoggedWithTheSystemText)
{
    Sandbox sb;
    sb.write_file("plain", "");
    std::string base = sb.path("plain");
    testing::internal::CaptureStderr();
    int rc = 0;
    run_in_coroutine([&] { rc = mkdir_parent(base.c_str(), "a/b/f"); });
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(rc, -ENOTDIR);
    EXPECT_NE(err.find("failed to create a directory '" + base + "/a': -20 (Not a directory)"),
              std::string::npos)
        << err;
    EXPECT_EQ(err.find(base + "/a/b"), std::string::npos) << "the walk stops at the failure";
}

} // namespace
