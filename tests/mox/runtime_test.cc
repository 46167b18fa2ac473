// The runtime on its real loop: coroutine switches, waits, contexts, file
// operations, error codes and base64.
#include "co_runner.h"
#include "mox/mox.h"
#include "sandbox.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using tarn_test::run_in_coroutine;
using tarn_test::Sandbox;

namespace
{

int32_t call_fn(mox_co *, void *arg)
{
    (*static_cast<std::function<void()> *>(arg))();
    return 0;
}

mox_co *spawn(std::function<void()> *fn, mox_context *ctx = nullptr)
{
    return mox_co_create(ctx, call_fn, fn);
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
            mox_co_join(spawn(&inner));
            try {
                mox_loop *back =
                    mox_co_migrate_to_thread(mox_process_worker(mox_current_process()));
                mox_co_migrate_from_thread(back);
                throw std::runtime_error("after a switch");
            } catch (const std::exception &e) {
                trace += e.what();
            }
        };
        mox_co *ca = spawn(&a);
        mox_co *cb = spawn(&b);
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
        EXPECT_EQ(mox_context_set_id(child, "op-%d ", 7), child);
        EXPECT_STREQ(mox_context_get_id(child), "op-7 ");
        std::function<void()> late = [] {
            int32_t ms = 60000;
            EXPECT_EQ(mox_co_wait_timeout(&ms), -ETIMEDOUT);
            EXPECT_EQ(ms, 0);
            EXPECT_EQ(mox_co_check_ctx(), -ETIMEDOUT);
            EXPECT_EQ(mox_co_mkdir("/tmp", 0700), -ETIMEDOUT);
            EXPECT_EQ(mox_co_wait_timeout(&ms), -ETIMEDOUT);
        };
        mox_co_join(spawn(&late, child));
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
    EXPECT_EQ(codes, "0 8 9 10 30 70 80 ");
    EXPECT_STREQ(mox_strerror(8), "not found");
    EXPECT_STREQ(mox_strerror(-30), "invalid argument");
    for (int code = 0; code < 300; ++code)
        EXPECT_NE(mox_strerror(code), nullptr);
    char buf[255], tiny[4];
    EXPECT_STREQ(mox_sys_strerror_r(ENOENT, buf, sizeof buf), "No such file or directory");
    EXPECT_STREQ(mox_sys_strerror_r(ENOENT, tiny, sizeof tiny), "No ");
}

TEST(Base64, KnownVectorsAndTruncation)
{
    // The test vectors of RFC 4648 (the prefixes of "foobar"), then output
    // cut at the buffer's end.
    std::string got;
    char out[16];
    for (size_t n = 0; n <= 6; ++n)
        got.append(out, base64_encode("foobar", n, out, sizeof out)).append("|");
    EXPECT_EQ(got, "|Zg==|Zm8=|Zm9v|Zm9vYg==|Zm9vYmE=|Zm9vYmFy|");
    EXPECT_EQ(std::string(out, base64_encode("\xfb\xff", 2, out, sizeof out)), "+/8=");
    char guard[4] = {'#', '#', '#', '#'};
    EXPECT_EQ(base64_encode("foobar", 6, guard, 3), 3u);
    EXPECT_EQ(std::string(guard, 4), "Zm9#");
    EXPECT_EQ(base64_encode("foob", 4, guard, 0), 0u);
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

} // namespace
