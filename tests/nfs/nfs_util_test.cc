// How the nfs command reads a shell's status: the exit code, or a stop by a
// signal, which no end-to-end run can arrange for a stand-in's shell.
#include "nfs/nfs_util.h"

#include <gtest/gtest.h>

namespace
{

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
