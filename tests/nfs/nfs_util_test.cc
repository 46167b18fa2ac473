// The nfs command's name check. Runs of the command end through _exit,
// which skips the coverage counters' flush; this keeps the refusals counted.
#include "nfs/nfs.h"

#include <gtest/gtest.h>

namespace
{

TEST(NfsCheckAlphabet, AcceptsOnlyPortableNameCharacters)
{
    for (const char *ok : {"", "/srv/tarn", "nfs-01.example_host", "ABCxyz0189", "../.."})
        EXPECT_EQ(check_alphabet(ok), 0) << ok;
    for (const char *bad : {" ", "a'b", "a;b", "$HOME", "a\nb", "t\xc3\xa9", "a:b", "~", "`id`"})
        EXPECT_EQ(check_alphabet(bad), -30) << bad;
}

} // namespace
