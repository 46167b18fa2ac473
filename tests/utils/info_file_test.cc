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
#include <tuple>

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

// Writes `text` to `path` as an info file with the test's magic; `size` 0
// asks for exactly the length of the text.
int write_info(const std::string &path, const char *text, uint32_t size, int flags = O_WRONLY)
{
    int rc = 1;
    with_file(path, flags | O_CREAT, [&](mox_co_file *f) {
        mox_config *cfg = mox_read_config_mem(text);
        if (size == 0) { // the same keys and an mtime of the same width
            mox_config_setstr(cfg, ".type", kMagic);
            mox_config_setint(cfg, ".mtime_ms", get_real_time_ms());
            char *full = mox_write_config_mem(cfg);
            size = static_cast<uint32_t>(strlen(full));
            mox_free(full);
        }
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
    std::string content = sb.read_file("obj.info");
    ASSERT_EQ(content.size(), 400u);
    EXPECT_EQ(content.back(), '\n');
    EXPECT_NE(content.find(".type = tarn.test-info.1\n"), std::string::npos) << content;
    // A smaller record size than the file: the file's own size wins.
    ASSERT_EQ(write_info(path, "a = 2\n", 64), 0);
    content = sb.read_file("obj.info");
    ASSERT_EQ(content.size(), 400u);
    EXPECT_EQ(content.back(), '\n');
    EXPECT_EQ(content.find(long_value), std::string::npos) << "old text shows through";
    int rc = 1;
    mox_config *cfg = parse_info(path, 64, &rc);
    ASSERT_EQ(rc, 0);
    int64_t mtime = 0;
    EXPECT_EQ(mox_config_getint(cfg, ".mtime_ms", &mtime, 8), 0);
    EXPECT_LE(mtime, get_real_time_ms());
    mox_config_unset(cfg, ".mtime_ms");
    char *text = mox_write_config_mem(cfg); // the pairs without the magic
    EXPECT_STREQ(text, "a = 2\n");
    mox_free(text);
    mox_free_config(cfg);
    // A record of exactly the text's length has no padding.
    ASSERT_EQ(write_info(path = sb.path("exact.info"), "k = v\n", 0), 0);
    content = sb.read_file("exact.info");
    EXPECT_EQ(content.back(), '\n');
    EXPECT_EQ(content.find(" \n"), std::string::npos) << content;
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
    struct Row {
        std::string content; // "/": the path is a directory
        uint32_t size;
        int rc;
        std::string message; // after "info_file_<op>: ", % for the path
    };
    const std::string magic = ".type = tarn.test-info.1\n";
    const Row rows[] = {
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
    for (const Row &r : rows) {
        SCOPED_TRACE(r.content.substr(0, 40));
        Sandbox sb;
        std::string path = r.content == "/" ? sb.mkdir("f") : sb.write_file("f", r.content);
        testing::internal::CaptureStderr();
        int rc = 1;
        mox_config *cfg = parse_info(path, r.size, &rc);
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(rc, r.rc);
        EXPECT_EQ(cfg != nullptr, r.rc == 0);
        mox_free_config(cfg);
        std::string msg = r.message;
        if (size_t pct = msg.find('%'); pct != std::string::npos)
            msg.replace(pct, 1, path);
        EXPECT_TRUE(msg.empty() || err.find("info_file_" + msg) != std::string::npos) << err;
    }
}

TEST(MkdirParent, CreatesEveryDirectoryButTheLastComponent)
{
    const std::tuple<const char *, int, const char *> rows[] = {
        // the path, the result, the deepest directory made
        {"file", -30, nullptr},           {"a/", 0, "a"}, {"a/b/c", 0, "a/b"}, {"x//y/z", 0, "x/y"},
        {"plain/a/f", -ENOTDIR, nullptr},
    };
    Sandbox sb;
    sb.write_file("plain", "");
    testing::internal::CaptureStderr();
    for (const auto &[relpath, want, deepest] : rows) {
        int rc = 1, again = 1;
        run_in_coroutine([&] {
            rc = mkdir_parent(sb.dir().c_str(), relpath);
            again = mkdir_parent(sb.dir().c_str(), relpath);
        });
        EXPECT_EQ(rc, want) << relpath;
        EXPECT_EQ(again, want) << relpath << ": existing directories count as created";
        struct stat st;
        EXPECT_TRUE(!deepest || (stat(sb.path(deepest).c_str(), &st) == 0 && S_ISDIR(st.st_mode) &&
                                 (st.st_mode & 0777) == 0700))
            << relpath;
        EXPECT_FALSE(relpath[strlen(relpath) - 1] != '/' && sb.exists(relpath)) << relpath;
    }
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("failed to create a directory '" + sb.path("plain/a") +
                       "': -20 (Not a directory)"),
              std::string::npos)
        << err;
}

} // namespace
