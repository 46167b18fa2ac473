// The configuration text: what parses, what does not, round trips, numbers
// and references.
#include "mox/mox.h"

#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace
{

struct ConfigPtr {
    mox_config *p;
    explicit ConfigPtr(mox_config *c) : p(c) {}
    ~ConfigPtr() { mox_free_config(p); }
};

std::string get(const mox_config *cfg, const char *key)
{
    const char *v = nullptr;
    return mox_config_getstr(cfg, key, &v) == 0 ? v : "<absent>";
}

TEST(ConfigText, AcceptedLines)
{
    ConfigPtr c(mox_read_config_mem("replication.auto.enable = y\n"
                                    ".type=tarn.acc-data.0\n"
                                    "\t storage.nfs.export\t=  /exp/a b  \r\n"
                                    "\n   \n"
                                    "# a comment = with equals\n"
                                    "   #log.level = 5\n"
                                    "empty =\n"
                                    "eq = a=b=c\n"
                                    "dup = 1\n"
                                    "dup = 2\n"
                                    "last.line=no newline"));
    ASSERT_NE(c.p, nullptr);
    EXPECT_EQ(get(c.p, "replication.auto.enable"), "y");
    EXPECT_EQ(get(c.p, ".type"), "tarn.acc-data.0");
    EXPECT_EQ(get(c.p, "storage.nfs.export"), "/exp/a b");
    EXPECT_EQ(get(c.p, "log.level"), "<absent>");
    EXPECT_EQ(get(c.p, "empty"), "");
    EXPECT_EQ(get(c.p, "eq"), "a=b=c");
    EXPECT_EQ(get(c.p, "dup"), "2");
    EXPECT_EQ(get(c.p, "last.line"), "no newline");
    EXPECT_EQ(mox_config_size(c.p), 7u);
}

TEST(ConfigText, RejectedTexts)
{
    const char *bad[] = {
        "no equals sign\n", "= value without key\n", "key with space = 1\n",
        "k$y = 1\n",        "ok = 1\nbroken line\n", "ключ = 1\n",
        "key : value\n",
    };
    for (const char *text : bad)
        EXPECT_EQ(mox_read_config_mem(text), nullptr) << text;
    std::string with_nul("a = 1\n", 6);
    with_nul.push_back('\0');
    with_nul += "b = 2\n";
    FILE *f = fmemopen(with_nul.data(), with_nul.size(), "r");
    mox_config *cfg = mox_create_config();
    EXPECT_NE(mox_parse_config_file(cfg, f), 0);
    EXPECT_EQ(mox_config_size(cfg), 0u); // nothing is half-added
    fclose(f);
    mox_free_config(cfg);
}

TEST(ConfigText, WriteReadsBackTheSamePairs)
{
    ConfigPtr c(mox_create_config());
    EXPECT_EQ(mox_config_setstr(c.p, ".type", "tarn.acc-data.0"), 0);
    EXPECT_EQ(mox_config_setstr(c.p, "pull.src-host", "gw.example:443"), 0);
    EXPECT_EQ(mox_config_setstr(c.p, "empty", ""), 0);
    EXPECT_EQ(mox_config_setstr(c.p, "inner", "a  =  b # c"), 0);
    EXPECT_EQ(mox_config_setint(c.p, ".mtime_ms", -1234567890123LL), 0);
    // Values that could not come back from text are refused, not mangled.
    EXPECT_EQ(mox_config_setstr(c.p, "nl", "a\nb"), -30);
    EXPECT_EQ(mox_config_setstr(c.p, "lead", " a"), -30);
    EXPECT_EQ(mox_config_setstr(c.p, "bad key", "a"), -30);
    EXPECT_EQ(mox_config_setstr(c.p, "", "a"), -30);
    char *text = mox_write_config_mem(c.p);
    ConfigPtr back(mox_read_config_mem(text));
    ASSERT_NE(back.p, nullptr) << text;
    EXPECT_EQ(mox_config_size(back.p), 5u);
    for (const char *k : {".type", "pull.src-host", "empty", "inner", ".mtime_ms"})
        EXPECT_EQ(get(back.p, k), get(c.p, k)) << k;
    __mox_free(text);
    EXPECT_EQ(mox_config_unset(c.p, "inner"), 0);
    EXPECT_EQ(mox_config_unset(c.p, "inner"), -8);
}

TEST(ConfigNumbers, SizesRangesAndJunk)
{
    ConfigPtr c(mox_read_config_mem("a = 127\nb = -128\nc = 4294967295\nd = -1\n"
                                    "e = 12x\nf = 0x10\ng = \nh = +5\n"));
    int8_t i8;
    EXPECT_EQ(mox_config_getint(c.p, "a", &i8, 1), 0);
    EXPECT_EQ(i8, 127);
    EXPECT_EQ(mox_config_getint(c.p, "b", &i8, 1), 0);
    EXPECT_EQ(i8, -128);
    int32_t i32 = 7;
    EXPECT_EQ(mox_config_getint(c.p, "c", &i32, 4), -30);
    EXPECT_EQ(i32, 7);
    uint32_t u32;
    EXPECT_EQ(mox_config_getuint(c.p, "c", &u32, 4), 0);
    EXPECT_EQ(u32, 4294967295u);
    EXPECT_EQ(mox_config_getuint(c.p, "d", &u32, 4), -30);
    int64_t i64;
    EXPECT_EQ(mox_config_getint(c.p, "d", &i64, 8), 0);
    EXPECT_EQ(i64, -1);
    for (const char *k : {"e", "f", "g"})
        EXPECT_EQ(mox_config_getint(c.p, k, &i64, 8), -30) << k;
    EXPECT_EQ(mox_config_getint(c.p, "h", &i64, 8), 0);
    EXPECT_EQ(i64, 5);
    EXPECT_EQ(mox_config_getint(c.p, "missing", &i64, 8), -8);
    EXPECT_EQ(mox_config_getint(c.p, "a", &i64, 3), -30);
}

TEST(ConfigExpand, ReferencesUnknownKeysAndLoops)
{
    ConfigPtr c(mox_read_config_mem("root_dir = /srv/tarn\n"
                                    "storage = $root_dir/storage\n"
                                    "braced = ${root_dir}x\n"
                                    "nested = $storage/nfs.\n"
                                    "dollar = cost $$5\n"
                                    "unknown = $nope/x\n"
                                    "self = a$self\n"
                                    "ping = $pong\n"
                                    "pong = <$ping>\n"
                                    "open = ${root_dir\n"));
    const char *v = nullptr;
    auto expand = [&](const char *key) {
        EXPECT_EQ(mox_config_getstr_expand(c.p, key, &v), 0) << key;
        return std::string(v);
    };
    EXPECT_EQ(expand("storage"), "/srv/tarn/storage");
    EXPECT_EQ(expand("braced"), "/srv/tarnx");
    EXPECT_EQ(expand("nested"), "/srv/tarn/storage/nfs.");
    EXPECT_EQ(expand("dollar"), "cost $5");
    EXPECT_EQ(expand("unknown"), "$nope/x");
    EXPECT_EQ(expand("self"), "a$self");
    EXPECT_EQ(expand("ping"), "<$ping>");
    EXPECT_EQ(expand("open"), "${root_dir");
    EXPECT_EQ(mox_config_getstr_expand(c.p, "missing", &v), -8);
    // Results stay valid after the value changes.
    const char *before = nullptr;
    mox_config_getstr_expand(c.p, "storage", &before);
    mox_config_setstr(c.p, "root_dir", "/other");
    EXPECT_EQ(expand("storage"), "/other/storage");
    EXPECT_STREQ(before, "/srv/tarn/storage");
}

TEST(ConfigExpand, DoublingChainsAndLongChainsStayBounded)
{
    // Each key references the previous one twice: 2^40 copies unbounded.
    // (Strings are built by appending: GCC 12 at -O3 misreports "lit" + str.)
    std::string text = "k0 = x\n";
    auto line = [&text](const char *key, int i, int refs) {
        std::string prev = std::to_string(i - 1);
        text.append(key).append(std::to_string(i)).append(" =");
        for (int r = 0; r < refs; ++r)
            text.append(r == 0 ? " $" : "$").append(key).append(prev);
        text.append("\n");
    };
    for (int i = 1; i <= 40; ++i)
        line("k", i, 2);
    // An empty value doubled is still nothing, but must not take 2^40 steps.
    text += "e0 =\n";
    for (int i = 1; i <= 40; ++i)
        line("e", i, 2);
    // A chain deeper than any coroutine stack could follow.
    for (int i = 1; i <= 5000; ++i)
        line("c", i, 1);
    ConfigPtr c(mox_read_config_mem(text.c_str()));
    ASSERT_NE(c.p, nullptr);
    const char *v = nullptr;
    EXPECT_EQ(mox_config_getstr_expand(c.p, "k10", &v), 0);
    EXPECT_EQ(strlen(v), 1024u);
    EXPECT_EQ(mox_config_getstr_expand(c.p, "k40", &v), -29);
    EXPECT_EQ(mox_config_getstr_expand(c.p, "e40", &v), 0);
    EXPECT_STREQ(v, "");
    EXPECT_EQ(mox_config_getstr_expand(c.p, "c5000", &v), 0);
    EXPECT_STREQ(v, "$c4935"); // 64 levels are followed, the rest stays as written
}

TEST(ConfigFile, MissingAndUnreadableFiles)
{
    EXPECT_EQ(mox_read_config("/nonexistent/tarn.config"), nullptr);
    EXPECT_EQ(mox_read_config("/"), nullptr); // a directory is not readable text
}

} // namespace
