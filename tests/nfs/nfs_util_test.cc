// The nfs command's name check and its reading of shell statuses. Runs of
// the command end through _exit, which skips the coverage counters' flush;
// these keep the refusals and a stop by a signal counted and checked.
#include "nfs/nfs.h"
#include "nfs/nfs_util.h"

#include <gtest/gtest.h>

namespace
{

TEST(NfsCheckAlphabet, AcceptsOnlyPortableNameCharacters)
{
    for (const char *ok : {"", "/srv/tarn", "nfs-01.example_host", "ABCxyz0189", "../.."})
        EXPECT_EQ(check_alphabet(ok), 0) << ok;
    for (const char *bad : {" ", "/e x", "a'b", "a\"b", "a;b", "$HOME", "a\\b", "a\nb", "t\xc3\xa9",
                            "a:b", "a*", "`id`", "a{b}", "~"})
        EXPECT_EQ(check_alphabet(bad), -30) << bad;
}

TEST(NfsSystem, ReturnsTheShellExitCode)
{
    EXPECT_EQ(nfs_system("true"), 0);
    EXPECT_EQ(nfs_system("exit 255"), 255);
    EXPECT_EQ(nfs_system("/nonexistent/program 2>/dev/null"), 127);
}

TEST(NfsSystemDeathTest, KilledShellEndsWith122AndTheRawStatus)
{
    EXPECT_EXIT(nfs_system("kill -9 $$"), ::testing::ExitedWithCode(122),
                "> system\\(\"kill -9 \\$\\$\"\\) returned 9\n");
}

} // namespace
