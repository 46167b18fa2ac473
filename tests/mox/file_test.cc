// Coroutine file operations: results, errno mapping, and that blocking calls
// leave the loop free.
#include "co_runner.h"
#include "mox/mox.h"
#include "sandbox.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

using tarn_test::run_in_coroutine;
using tarn_test::Sandbox;

namespace
{

TEST(FileOps, WriteReadSyncRenameStatUnlink)
{
    Sandbox sb;
    run_in_coroutine([&] {
        std::string a = sb.path("a"), b = sb.path("b");
        mox_co_file *f = nullptr;
        ASSERT_EQ(mox_co_file_open(a.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600, &f), 0);
        EXPECT_EQ(mox_co_file_open(a.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600, &f), -EEXIST);
        EXPECT_EQ(mox_co_file_write(f, "hello world", 11, 0), 11);
        EXPECT_EQ(mox_co_file_write(f, "W", 1, 6), 1);
        EXPECT_EQ(mox_co_file_sync(f, 0), 0);
        EXPECT_EQ(mox_co_file_sync(f, 1), 0);
        uint64_t size = 0;
        EXPECT_EQ(mox_co_file_getfsize(f->fd, &size), 0);
        EXPECT_EQ(size, 11u);
        EXPECT_GE(fcntl(f->fd, F_GETFD) & FD_CLOEXEC, 1);
        EXPECT_EQ(mox_co_file_close(f), 0);

        ASSERT_EQ(mox_co_file_rename(a.c_str(), b.c_str()), 0);
        struct stat st;
        EXPECT_EQ(mox_co_file_stat(a.c_str(), 0, &st), -ENOENT);
        ASSERT_EQ(mox_co_file_stat(b.c_str(), 0, &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0600u);

        ASSERT_EQ(mox_co_file_open(b.c_str(), O_RDONLY, 0600, &f), 0);
        char buf[32] = {};
        EXPECT_EQ(mox_co_file_read(f, buf, sizeof buf, 0), 11);
        EXPECT_STREQ(buf, "hello World");
        EXPECT_EQ(mox_co_file_read(f, buf, sizeof buf, 11), 0);
        mox_co_file_close(f);
        EXPECT_EQ(mox_co_file_unlink(b.c_str()), 0);
        EXPECT_EQ(mox_co_file_unlink(b.c_str()), -ENOENT);
    });
}

TEST(FileOps, DirectoriesAndTheExistsMapping)
{
    Sandbox sb;
    run_in_coroutine([&] {
        std::string d = sb.path("d");
        EXPECT_EQ(mox_co_mkdir(d.c_str(), 0700), 0);
        int rc = mox_co_mkdir(d.c_str(), 0700);
        EXPECT_EQ(rc, -EEXIST);
        EXPECT_EQ(mox_errno_to_err(-rc), 70);
        EXPECT_EQ(mox_co_mkdir(sb.path("missing/x").c_str(), 0700), -ENOENT);
        sb.write_file("d/f", "x");
        EXPECT_EQ(mox_co_rmdir(d.c_str()), -ENOTEMPTY);
        unlink(sb.path("d/f").c_str());
        EXPECT_EQ(mox_co_rmdir(d.c_str()), 0);
    });
}

TEST(FileOps, BlockingCallLeavesTheLoopRunning)
{
    // Opening a FIFO for reading blocks until a writer comes: the writer is
    // another coroutine on the same loop, which can only run if the open is
    // off the loop thread.
    Sandbox sb;
    std::string fifo = sb.path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    run_in_coroutine([&] {
        std::function<void()> writer = [&] {
            int32_t ms = 20;
            mox_co_wait_timeout(&ms);
            int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
            EXPECT_GE(fd, 0);
            EXPECT_EQ(write(fd, "x", 1), 1);
            close(fd);
        };
        mox_co_create(
            nullptr,
            [](mox_co *, void *arg) -> int32_t {
                (*static_cast<std::function<void()> *>(arg))();
                return 0;
            },
            &writer);
        mox_co_file *f = nullptr;
        ASSERT_EQ(mox_co_file_open(fifo.c_str(), O_RDONLY, 0600, &f), 0);
        char c = 0;
        EXPECT_EQ(mox_co_file_read(f, &c, 1, 0), -ESPIPE); // FIFOs have no offsets
        mox_co_file_close(f);
    });
}

TEST(FileOps, WorkOutsideCoroutinesRunsDirectly)
{
    Sandbox sb;
    EXPECT_EQ(mox_co_mkdir(sb.path("direct").c_str(), 0700), 0);
    EXPECT_TRUE(sb.exists("direct"));
}

} // namespace
