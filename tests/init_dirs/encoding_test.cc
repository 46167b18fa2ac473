// The encoding grammar: both forms, number bases, and the limits; the
// end-to-end rows show how the commands use it.
#include "init_dirs/init_dirs.h"
#include "mox/mox.h"

#include <gtest/gtest.h>

namespace
{

struct EncodingCase {
    const char *text;
    int rc;
    int32_t m, n, x; // checked only when rc is 0
};

const EncodingCase kEncodings[] = {
    {"encoding=5+2/3", 0, 5, 2, 3},
    {"encoding=5+2", 0, 5, 2, -1},
    {"encoding=0+0/0", 0, 0, 0, 0},
    {"encoding=0x3+02", 0, 3, 2, -1},
    {"encoding=010+0x1/0X2", 0, 8, 1, 2},
    {"encoding= 3+ 2/ 1", 0, 3, 2, 1},
    {"encoding=+3+2", 0, 3, 2, -1},
    {"encoding=3+2/1abc", 0, 3, 2, 1},
    {"encoding=3+2abc", 0, 3, 2, -1},
    {"encoding=3+2/", 0, 3, 2, -1},
    {"encoding=3+2/x", 0, 3, 2, -1},
    {"encoding=2147483647+0", 0, 2147483647, 0, -1},
    {"encoding=3+-1/2", -30, 0, 0, 0},
    {"encoding=-1+2", -30, 0, 0, 0},
    // A negative X is final: the short form is not tried.
    {"encoding=3+2/-1", -30, 0, 0, 0},
    {"encoding=3", -30, 0, 0, 0},
    {"encoding=3-2", -30, 0, 0, 0},
    {"encoding=", -30, 0, 0, 0},
    {"encoding=a+b", -30, 0, 0, 0},
    {"Encoding=3+2", -30, 0, 0, 0},
    {"encoding=2147483648+0", -30, 0, 0, 0},
    {"encoding=1+0/4294967296", -30, 0, 0, 0},
};

TEST(EncodingString, ParsesBothFormsAndRefusesTheRest)
{
    for (const EncodingCase &c : kEncodings) {
        SCOPED_TRACE(c.text);
        int32_t m = 99, n = 99, x = 99;
        ASSERT_EQ(mox_parse_encoding_string(c.text, &m, &n, &x), c.rc);
        if (c.rc != 0)
            continue;
        EXPECT_EQ(m, c.m);
        EXPECT_EQ(n, c.n);
        EXPECT_EQ(x, c.x);
    }
}

} // namespace
