// The runtime on its real loop: coroutine switches, waits, contexts, file
// operations, error codes and base64; and the configuration text: what
// parses, what does not, numbers and references.
#include "co_runner.h"
#include "mox/mox.h"
#include "sandbox.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <utility>

using tarn_test::run_in_coroutine;
using tarn_test::Sandbox;

namespace
{

int32_t call_fn(mox_co *, void *arg)
{
    (*static_cast<std::function<void()> *>(arg))();
    return 0;
}

// Under the sanitizers this checks the stack-switch annotations: coroutines
// that end, a coroutine started and joined from another, deep frames and an
// exception after a round trip to the worker thread.
TEST(Coroutines, SwitchesEndsAndNestedStarts)
{
    std::string trace;
    run_in_coroutine([&] {
        std::function<void()> a = [&] {
            for (char c : {'1', '2', '3'}) {
                trace += std::string("a") + c;
                mox_co_yield();
            }
        };
        std::function<int(int)> deep = [&](int n) -> int {
            volatile int pad[128];
            pad[0] = n;
            if (n == 0)
                mox_co_yield();
            return n == 0 ? 0 : deep(n - 1) + pad[0];
        };
        std::function<void()> inner = [&] { trace += deep(200) == 200 * 201 / 2 ? "i" : "?"; };
        std::function<void()> b = [&] {
            trace += "b";
            mox_co_join(mox_co_create(nullptr, call_fn, &inner));
            try {
                mox_loop *back =
                    mox_co_migrate_to_thread(mox_process_worker(mox_current_process()));
                mox_co_migrate_from_thread(back);
                throw std::runtime_error("after a switch");
            } catch (const std::exception &e) {
                trace += e.what();
            }
        };
        mox_co *ca = mox_co_create(nullptr, call_fn, &a);
        mox_co *cb = mox_co_create(nullptr, call_fn, &b);
        EXPECT_EQ(mox_co_wait_link(ca)->next, mox_co_wait_link(ca)); // in no wait queue
        EXPECT_EQ(mox_co_join(ca), 0);
        EXPECT_EQ(mox_co_join(cb), 0);
        EXPECT_EQ(mox_co_join(ca), 0); // joining an ended coroutine returns at once
    });
    EXPECT_EQ(trace, "a1ba2a3iafter a switch");
}

TEST(Contexts, DeadlinesOfChildrenAndTheirEnd)
{
    run_in_coroutine([] {
        // A child's deadline never outlives its parent's; past it every
        // operation fails at once.
        mox_context *parent = mox_context_alloc();
        mox_context_set_timeout(parent, 50);
        mox_context *child = mox_context_alloc_child(parent);
        mox_context_set_timeout(child, 60000);
        EXPECT_EQ(mox_context_deadline_ms(child), mox_context_deadline_ms(parent));
        EXPECT_EQ(mox_context_get_id(child), nullptr);
        EXPECT_STREQ(mox_context_get_id(mox_context_set_id(child, "op-%d ", 7)), "op-7 ");
        std::function<void()> late = [] {
            int32_t ms = 60000;
            EXPECT_EQ(mox_co_wait_timeout(&ms), -ETIMEDOUT);
            EXPECT_EQ(ms, 0);
            EXPECT_EQ(mox_co_check_ctx(), -ETIMEDOUT);
            EXPECT_EQ(mox_co_mkdir("/tmp", 0700), -ETIMEDOUT);
            EXPECT_EQ(mox_co_wait_timeout(&ms), -ETIMEDOUT);
        };
        mox_co_join(mox_co_create(child, call_fn, &late));
        mox_context_put(child);
        mox_context_put(parent);
    });
}

TEST(FileOps, ErrorsAndDirectories)
{
    Sandbox sb;
    std::string d = sb.path("d"), f = d + "/f";
    run_in_coroutine([&] {
        mox_co_file *file = nullptr;
        EXPECT_EQ(mox_co_mkdir(d.c_str(), 0700), 0);
        ASSERT_EQ(mox_co_file_open(f.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600, &file), 0);
        EXPECT_GE(fcntl(file->fd, F_GETFD) & FD_CLOEXEC, 1);
        mox_co_file_close(file);
        EXPECT_EQ(mox_co_file_open(f.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600, &file), -EEXIST);
        EXPECT_EQ(mox_co_rmdir(d.c_str()), -ENOTEMPTY);
        EXPECT_EQ(mox_co_file_unlink(f.c_str()), 0);
        EXPECT_EQ(mox_co_file_unlink(f.c_str()), -ENOENT);
        EXPECT_EQ(mox_co_rmdir(d.c_str()), 0);
    });
    // Outside a coroutine the work runs directly.
    EXPECT_EQ(mox_co_mkdir(d.c_str(), 0700), 0);
    EXPECT_TRUE(sb.exists("d"));
    EVP_PKEY *key = nullptr;
    EXPECT_EQ(mox_pkey_from_pem_file(sb.write_file("k.pem", "no key\n").c_str(), &key), -29);
    EXPECT_EQ(mox_pkey_from_pem_file(f.c_str(), &key), -ENOENT);
}

TEST(Errors, MappingAndTexts)
{
    std::string codes;
    for (int err : {0, ENOENT, ENOTDIR, EISDIR, EINVAL, EEXIST, EIO})
        codes += std::to_string(mox_errno_to_err(err)) + " ";
    char buf[255], tiny[4];
    codes = codes + mox_strerror(8) + "|" + mox_strerror(-30) + "|" +
            mox_sys_strerror_r(ENOENT, buf, sizeof buf) + "|" +
            mox_sys_strerror_r(ENOENT, tiny, sizeof tiny);
    EXPECT_EQ(codes, "0 8 9 10 30 70 80 not found|invalid argument|No such file or directory|No ");
    for (int code = 0; code < 300; ++code)
        EXPECT_NE(mox_strerror(code), nullptr);
}

TEST(Base64, KnownVectorsAndTruncation)
{
    // RFC 4648's vectors, the alphabet's end, then output cut at the
    // buffer's end: the count written and the buffer behind it.
    std::string got;
    char out[16];
    for (size_t n = 0; n <= 6; ++n)
        got.append(out, base64_encode("foobar", n, out, sizeof out)).append("|");
    got.append(out, base64_encode("\xfb\xff", 2, out, sizeof out)).append("|");
    memset(out, '#', sizeof out);
    got.append(std::to_string(base64_encode("foobar", 6, out, 3))).append(out, 4);
    got += std::to_string(base64_encode("foob", 4, out, 0));
    EXPECT_EQ(got, "|Zg==|Zm8=|Zm9v|Zm9vYg==|Zm9vYmE=|Zm9vYmFy|+/8=|3Zm9#0");
}

// In the journal the syslog priority replaces the time stamp; a stream that
// is not standard error's own keeps the stamp.
TEST(LogDeathTest, LineHeadFollowsJournalStream)
{
    // A fresh process: the answer is kept from the first line logged.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (int own : {1, 0}) {
        EXPECT_EXIT(
            {
                struct stat st;
                fstat(STDERR_FILENO, &st);
                std::string id = std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino + !own);
                setenv("JOURNAL_STREAM", id.c_str(), 1);
                __mox_log_level = 9;
                for (int level : {0, 1, 2, 7})
                    mox_log(level, "level %d", level);
                exit(0);
            },
            testing::ExitedWithCode(0),
            own ? "^<3>E level 0\n<4>W level 1\n<6>I level 2\n<7>D level 7\n$"
                : "^[0-9]{4}-[0-9-]+ [0-9:.]+ E level 0\n");
    }
}

// The values of `keys`, each followed by '|'; expanded ones when `expand`.
std::string values(mox_config *cfg, std::initializer_list<const char *> keys, bool expand = false)
{
    std::string out;
    for (const char *key : keys) {
        const char *v = nullptr;
        int rc = expand ? mox_config_getstr_expand(cfg, key, &v) : mox_config_getstr(cfg, key, &v);
        out += (rc == 0 ? std::string(v) : std::to_string(rc)) + "|";
    }
    return out;
}

TEST(ConfigText, AcceptedAndRejectedLines)
{
    mox_config *c = mox_read_config_mem(
        "replication.auto.enable = y\n.type=tarn.acc-data.0\n"
        "\t storage.nfs.export\t=  /exp/a b  \r\n\n   \n# a comment = with equals\n"
        "   #log.level = 5\nempty =\neq = a=b=c\ndup = 1\ndup = 2\nlast.line=no newline");
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(values(c, {"replication.auto.enable", ".type", "storage.nfs.export", "log.level",
                         "empty", "eq", "dup", "last.line"}),
              "y|tarn.acc-data.0|/exp/a b|-8||a=b=c|2|no newline|");
    EXPECT_EQ(mox_config_size(c), 7u);
    // Values that could not come back from text are refused, not mangled.
    const std::pair<const char *, const char *> refused[] = {
        {"v", "a\nb"}, {"v", " a"}, {"v", "a\t"}, {"bad key", "a"}, {"", "a"}};
    for (const auto &[key, value] : refused)
        EXPECT_EQ(mox_config_setstr(c, key, value), -30) << key << value;
    EXPECT_EQ(mox_config_unset(c, "eq"), 0);
    EXPECT_EQ(mox_config_unset(c, "eq"), -8);
    mox_free_config(c);

    for (const char *text : {"no equals sign\n", "= value without key\n", "key with space = 1\n",
                             "k$y = 1\n", "ok = 1\nbroken line\n", "ключ = 1\n", "key : value\n"})
        EXPECT_EQ(mox_read_config_mem(text), nullptr) << text;
    std::string with_nul("a = 1\n\0b = 2\n", 12);
    FILE *f = fmemopen(with_nul.data(), with_nul.size(), "r");
    c = mox_create_config();
    EXPECT_NE(mox_parse_config_file(c, f), 0);
    EXPECT_EQ(mox_config_size(c), 0u); // nothing is half-added
    fclose(f);
    mox_free_config(c);
    EXPECT_EQ(mox_read_config("/nonexistent/tarn.config"), nullptr);
}

TEST(ConfigNumbers, SizesRangesAndJunk)
{
    mox_config *c = mox_read_config_mem("a = 127\nb = -128\nc = 4294967295\nd = -1\n"
                                        "e = 12x\nf = 0x10\ng = \nh = +5\n");
    // The key, the width, signed, the result and the bytes stored (little-endian).
    const std::tuple<const char *, size_t, bool, int, uint64_t> rows[] = {
        {"a", 1, true, 0, 0x7f}, {"b", 1, true, 0, 0x80},     {"c", 4, true, -30, 0},
        {"c", 4, false, 0, ~0u}, {"d", 4, false, -30, 0},     {"d", 8, true, 0, ~0ull},
        {"e", 8, true, -30, 0},  {"f", 8, true, -30, 0},      {"g", 8, true, -30, 0},
        {"h", 8, true, 0, 5},    {"missing", 8, true, -8, 0}, {"a", 3, true, -30, 0},
    };
    for (const auto &[key, size, is_signed, want_rc, want_bits] : rows) {
        uint64_t bits = 0;
        int rc = is_signed ? mox_config_getint(c, key, &bits, size)
                           : mox_config_getuint(c, key, &bits, size);
        EXPECT_EQ(rc, want_rc) << key << "/" << size;
        EXPECT_EQ(bits, want_bits) << key << "/" << size;
    }
    mox_free_config(c);
}

TEST(ConfigExpand, ReferencesLoopsAndChainsStayBounded)
{
    // k and e: each key references the previous one twice (2^40 copies
    // unbounded; e doubles nothing). c: deeper than any coroutine stack.
    // (Strings are built by appending: GCC 12 at -O3 misreports "lit" + str.)
    std::string text =
        "root_dir = /srv/tarn\nstorage = $root_dir/storage\nbraced = ${root_dir}x\n"
        "nested = $storage/nfs.\ndollar = cost $$5\nunknown = $nope/x\nself = a$self\n"
        "ping = $pong\npong = <$ping>\nopen = ${root_dir\nk0 = x\ne0 =\n";
    const std::tuple<const char *, int, int> chains[] = {
        {"k", 2, 40}, {"e", 2, 40}, {"c", 1, 5000}};
    for (const auto &[key, refs, length] : chains) {
        for (int i = 1; i <= length; ++i) {
            text.append(key).append(std::to_string(i)).append(" =");
            for (int r = 0; r < refs; ++r)
                text.append(r == 0 ? " $" : "$").append(key).append(std::to_string(i - 1));
            text.append("\n");
        }
    }
    mox_config *c = mox_read_config_mem(text.c_str());
    ASSERT_NE(c, nullptr);
    const char *before = nullptr;
    mox_config_getstr_expand(c, "storage", &before);
    // c5000: 64 levels are followed, the rest stays as written.
    EXPECT_EQ(values(c,
                     {"storage", "braced", "nested", "dollar", "unknown", "self", "ping", "open",
                      "missing", "k40", "e40", "c5000"},
                     true),
              "/srv/tarn/storage|/srv/tarnx|/srv/tarn/storage/nfs.|cost $5|$nope/x|a$self|"
              "<$ping>|${root_dir|-8|-29||$c4935|");
    EXPECT_EQ(values(c, {"k10"}, true).size(), 1025u);
    mox_config_setstr(c, "root_dir", "/other");
    EXPECT_EQ(values(c, {"storage"}, true), "/other/storage|");
    EXPECT_STREQ(before, "/srv/tarn/storage"); // earlier results stay valid
    mox_free_config(c);
}

} // namespace
