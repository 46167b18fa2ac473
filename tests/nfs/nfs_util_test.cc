// The nfs command's value checks and its reading of shell statuses.
#include "mox/mox.h"
#include "nfs/nfs.h"
#include "nfs/nfs_util.h"

#include <gtest/gtest.h>
#include <memory>

namespace
{

TEST(NfsCheckAlphabet, AcceptsOnlyPortableNameCharacters)
{
    for (const char *ok : {"", "/srv/tarn", "nfs-01.example_host", "ABCxyz0189", "../.."})
        EXPECT_EQ(check_alphabet(ok), 0) << ok;
    for (const char *bad : {" ", "/e x", "a'b", "a\"b", "a;b", "$HOME", "a\\b", "a\nb", "t\xc3\xa9",
                            "a:b", "a*", "`id`"})
        EXPECT_EQ(check_alphabet(bad), -30) << bad;
}

struct ConfigDeleter {
    void operator()(mox_config *c) const { mox_free_config(c); }
};
using ConfigPtr = std::unique_ptr<mox_config, ConfigDeleter>;

ConfigPtr with_flag(const char *value)
{
    ConfigPtr cfg(mox_create_config());
    EXPECT_EQ(mox_config_setstr(cfg.get(), "cluster.enable", value), 0);
    return cfg;
}

TEST(NfsConfigGetflag, OnlyExactTrueWordsAreTrue)
{
    for (const char *yes : {"1", "y", "yes"})
        EXPECT_TRUE(config_getflag(with_flag(yes).get())) << yes;
    for (const char *no : {"0", "n", "no", "", "Y", "YES", "Yes", "true", "on", "2", "yes."})
        EXPECT_FALSE(config_getflag(with_flag(no).get())) << no;
}

TEST(NfsConfigGetflagDeathTest, MissingKeyEndsWith122)
{
    ConfigPtr cfg(mox_create_config());
    EXPECT_EXIT(config_getflag(cfg.get()), ::testing::ExitedWithCode(122),
                "> Failed to find a line 'cluster\\.enable = \\(1\\|y\\|yes\\|0\\|n\\|no\\)' in "
                "the config: -8 \\(not found\\)\n");
}

TEST(NfsSystem, ReturnsTheShellExitCode)
{
    EXPECT_EQ(nfs_system("true"), 0);
    EXPECT_EQ(nfs_system("exit 1"), 1);
    EXPECT_EQ(nfs_system("exit 255"), 255);
    EXPECT_EQ(nfs_system("/nonexistent/program 2>/dev/null"), 127);
}

TEST(NfsSystemDeathTest, KilledShellEndsWith122AndTheRawStatus)
{
    EXPECT_EXIT(nfs_system("kill -9 $$"), ::testing::ExitedWithCode(122),
                "> system\\(\"kill -9 \\$\\$\"\\) returned 9\n");
}

TEST(NfsFailDeathTest, LogsAtErrorLevelAndEndsWith122)
{
    EXPECT_EXIT(nfs_fail("> %s %i", "boom", 7), ::testing::ExitedWithCode(122), " E > boom 7\n");
}

} // namespace
