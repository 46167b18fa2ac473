// base64, error codes, the allocator's accounting, log lines and the reports
// that end the program.
#include "mox/mox.h"
#include "sandbox.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <string>
#include <unistd.h>

namespace
{

std::string b64(const std::string &in, size_t limit)
{
    std::string out(limit, '\0');
    out.resize(base64_encode(in.data(), in.size(), out.data(), limit));
    return out;
}

TEST(Base64, KnownVectorsAndTruncation)
{
    // The test vectors of RFC 4648.
    const std::pair<const char *, const char *> vectors[] = {
        {"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
    };
    for (const auto &[in, out] : vectors)
        EXPECT_EQ(b64(in, 64), out) << in;
    EXPECT_EQ(b64("foob", 5), "Zm9vY");
    EXPECT_EQ(b64("foob", 0), "");
    EXPECT_EQ(b64(std::string("\xfb\xff", 2), 8), "+/8=");
    char guard[4] = {'#', '#', '#', '#'};
    EXPECT_EQ(base64_encode("foobar", 6, guard, 3), 3u);
    EXPECT_EQ(std::string(guard, 4), "Zm9#");
}

TEST(Errors, MappingAndTexts)
{
    EXPECT_EQ(mox_errno_to_err(0), 0);
    EXPECT_EQ(mox_errno_to_err(EEXIST), 70);
    EXPECT_EQ(mox_errno_to_err(ENOENT), 8);
    EXPECT_EQ(mox_errno_to_err(EIO), 80);
    EXPECT_EQ(mox_errno_to_err(EINVAL), 30);
    EXPECT_STREQ(mox_strerror(8), "not found");
    EXPECT_STREQ(mox_strerror(29), "malformed data");
    EXPECT_STREQ(mox_strerror(-30), "invalid argument");
    for (int code = 0; code < 300; ++code)
        EXPECT_NE(mox_strerror(code), nullptr);
    char buf[255];
    EXPECT_STREQ(mox_sys_strerror_r(ENOENT, buf, sizeof buf), "No such file or directory");
    char tiny[4];
    mox_sys_strerror_r(ENOENT, tiny, sizeof tiny);
    EXPECT_EQ(strlen(tiny), 3u);
}

TEST(Allocator, CountsLiveBlocksPerSite)
{
    mox_malloc_debug_enable();
    static mox_alloc_site site;
    void *blocks[3];
    for (auto &b : blocks)
        b = __mox_zmalloc(&site, "alloc_test.cc:1", 1, 100);
    char *s = __mox_asprintf(&site, "alloc_test.cc:1", 1, "%s-%d", "x", 42);
    EXPECT_STREQ(s, "x-42");
    EXPECT_EQ(static_cast<unsigned char *>(blocks[0])[99], 0);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    mox_malloc_debug_report(fds[1]);
    close(fds[1]);
    char buf[4096] = {};
    (void)!read(fds[0], buf, sizeof buf - 1);
    close(fds[0]);
    EXPECT_NE(strstr(buf, "alloc_test.cc:1: 4 blocks, 305 bytes"), nullptr) << buf;
    for (auto &b : blocks)
        __mox_free(b);
    __mox_free(s);
    __mox_free(nullptr);
}

TEST(Keys, PemFilesWithCertificateAndKey)
{
    tarn_test::Sandbox sb;
    std::string pem = sb.path("site.pem");
    std::string cmd = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes "
                      "-subj /CN=t -days 1 -keyout " +
                      sb.path("k.pem") + " -out " + sb.path("c.pem") + " 2>/dev/null && cat " +
                      sb.path("c.pem") + " " + sb.path("k.pem") + " > " + pem;
    ASSERT_EQ(system(cmd.c_str()), 0);
    EVP_PKEY *key = nullptr;
    ASSERT_EQ(mox_pkey_from_pem_file(pem.c_str(), &key), 0);
    EXPECT_EQ(EVP_PKEY_base_id(key), EVP_PKEY_EC);
    EVP_PKEY_free(key);
    EXPECT_EQ(mox_pkey_from_pem_file(sb.path("c.pem").c_str(), &key), -29);
    EXPECT_EQ(mox_pkey_from_pem_file(sb.path("none.pem").c_str(), &key), -ENOENT);
}

TEST(Random, FillsBuffers)
{
    unsigned char a[64] = {}, b[64] = {};
    EXPECT_EQ(mox_get_urandom(a, sizeof a), 0);
    EXPECT_EQ(mox_get_urandom(b, sizeof b), 0);
    EXPECT_NE(memcmp(a, b, sizeof a), 0);
}

using LogDeathTest = ::testing::Test;

TEST_F(LogDeathTest, FatalLogsAtLevelZeroAndExitsOne)
{
    EXPECT_EXIT(
        {
            __mox_log_level = -1; // the fatal line is written whatever the threshold
            mox_fatal("Failed to open or parse config file '%s'", "/x");
        },
        ::testing::ExitedWithCode(1),
        R"(^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:.]{12} E Failed to open or parse config file '/x'
$)");
}

TEST_F(LogDeathTest, BugReportsNameTheLocationAndAbort)
{
    static const mox_bug_location loc = {"utils", "keepalive_list_fini", 42};
    EXPECT_DEATH(mox_bug_at(&loc), "bug.* at utils:42 in keepalive_list_fini\\(\\)");
    EXPECT_DEATH(mox_bug("tarn-ctl", 7, "start_co"), "at tarn-ctl:7 in start_co\\(\\)");
    EXPECT_DEATH(mox_err("allocation failed", "tarn-ctl", 9, "config_parse"),
                 "allocation failed at tarn-ctl:9 in config_parse\\(\\)");
}

TEST_F(LogDeathTest, ThresholdAndContextIdInLines)
{
    EXPECT_EXIT(
        {
            __mox_log_level = 2;
            mox_log(7, "hidden %d", 1);
            mox_log(2, "shown %s", "progress");
            mox_log(1, "warned");
            mox_log_terminate();
            _exit(0);
        },
        ::testing::ExitedWithCode(0), "I shown progress\n.* W warned\n$");
}

TEST_F(LogDeathTest, SigtermEndsTheRunWithALogLine)
{
    EXPECT_EXIT(
        {
            sigset_t set;
            sigemptyset(&set);
            sigaddset(&set, SIGTERM);
            mox_signal_block(&set);
            static mox_process proc;
            static mox_job job;
            mox_process_init(&proc);
            mox_job_init(
                &proc, &job,
                [](mox_job *, void *) -> void * {
                    kill(getpid(), SIGTERM);
                    return nullptr;
                },
                nullptr);
            mox_job_wakeup(&job);
            mox_process_start(&proc, "eventloop");
            mox_process_wait(&proc); // never returns: the signal ends the run
            _exit(0);
        },
        ::testing::ExitedWithCode(128 + SIGTERM), " E terminated by signal SIGTERM\n");
}

} // namespace
