// The configuration text: what parses, what does not, round trips, numbers
// and references.
#include "mox/mox.h"

#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace
{

struct ConfigDeleter {
    void operator()(mox_config *cfg) const { mox_free_config(cfg); }
};
using Config = std::unique_ptr<mox_config, ConfigDeleter>;

std::string get(const mox_config *cfg, const char *key)
{
    const char *v = nullptr;
    return mox_config_getstr(cfg, key, &v) == 0 ? v : "<absent>";
}

TEST(ConfigText, AcceptedLines)
{
    Config c(mox_read_config_mem("replication.auto.enable = y\n.type=tarn.acc-data.0\n"
                                 "\t storage.nfs.export\t=  /exp/a b  \r\n\n   \n"
                                 "# a comment = with equals\n   #log.level = 5\n"
                                 "empty =\neq = a=b=c\ndup = 1\ndup = 2\nlast.line=no newline"));
    ASSERT_NE(c, nullptr);
    const std::pair<const char *, const char *> want[] = {{"replication.auto.enable", "y"},
                                                          {".type", "tarn.acc-data.0"},
                                                          {"storage.nfs.export", "/exp/a b"},
                                                          {"log.level", "<absent>"},
                                                          {"empty", ""},
                                                          {"eq", "a=b=c"},
                                                          {"dup", "2"},
                                                          {"last.line", "no newline"}};
    for (const auto &[key, value] : want)
        EXPECT_EQ(get(c.get(), key), value) << key;
    EXPECT_EQ(mox_config_size(c.get()), 7u);
}

TEST(ConfigText, RejectedTexts)
{
    for (const char *text : {"no equals sign\n", "= value without key\n", "key with space = 1\n",
                             "k$y = 1\n", "ok = 1\nbroken line\n", "ключ = 1\n", "key : value\n"})
        EXPECT_EQ(mox_read_config_mem(text), nullptr) << text;
    std::string with_nul("a = 1\n\0b = 2\n", 12);
    FILE *f = fmemopen(with_nul.data(), with_nul.size(), "r");
    Config cfg(mox_create_config());
    EXPECT_NE(mox_parse_config_file(cfg.get(), f), 0);
    EXPECT_EQ(mox_config_size(cfg.get()), 0u); // nothing is half-added
    fclose(f);
    EXPECT_EQ(mox_read_config("/nonexistent/tarn.config"), nullptr);
}

TEST(ConfigText, WriteReadsBackTheSamePairs)
{
    Config c(mox_create_config());
    EXPECT_EQ(mox_config_setstr(c.get(), "pull.src-host", "gw.example:443"), 0);
    EXPECT_EQ(mox_config_setstr(c.get(), "empty", ""), 0);
    EXPECT_EQ(mox_config_setstr(c.get(), "inner", "a  =  b # c"), 0);
    EXPECT_EQ(mox_config_setint(c.get(), ".mtime_ms", -1234567890123LL), 0);
    // Values that could not come back from text are refused, not mangled.
    for (const char *value : {"a\nb", " a", "a\t"})
        EXPECT_EQ(mox_config_setstr(c.get(), "v", value), -30) << value;
    EXPECT_EQ(mox_config_setstr(c.get(), "bad key", "a"), -30);
    EXPECT_EQ(mox_config_setstr(c.get(), "", "a"), -30);
    char *text = mox_write_config_mem(c.get());
    Config back(mox_read_config_mem(text));
    __mox_free(text);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(mox_config_size(back.get()), 4u);
    for (const char *k : {"pull.src-host", "empty", "inner", ".mtime_ms"})
        EXPECT_EQ(get(back.get(), k), get(c.get(), k)) << k;
    EXPECT_EQ(mox_config_unset(c.get(), "inner"), 0);
    EXPECT_EQ(mox_config_unset(c.get(), "inner"), -8);
}

TEST(ConfigNumbers, SizesRangesAndJunk)
{
    Config c(mox_read_config_mem("a = 127\nb = -128\nc = 4294967295\nd = -1\n"
                                 "e = 12x\nf = 0x10\ng = \nh = +5\n"));
    struct Row {
        const char *key;
        size_t size;
        bool is_signed;
        int rc;
        uint64_t bits; // the bytes stored, read little-endian
    };
    const Row rows[] = {
        {"a", 1, true, 0, 0x7f}, {"b", 1, true, 0, 0x80},     {"c", 4, true, -30, 0},
        {"c", 4, false, 0, ~0u}, {"d", 4, false, -30, 0},     {"d", 8, true, 0, ~0ull},
        {"e", 8, true, -30, 0},  {"f", 8, true, -30, 0},      {"g", 8, true, -30, 0},
        {"h", 8, true, 0, 5},    {"missing", 8, true, -8, 0}, {"a", 3, true, -30, 0},
    };
    for (const Row &r : rows) {
        uint64_t bits = 0;
        int rc = r.is_signed ? mox_config_getint(c.get(), r.key, &bits, r.size)
                             : mox_config_getuint(c.get(), r.key, &bits, r.size);
        EXPECT_EQ(rc, r.rc) << r.key << "/" << r.size;
        EXPECT_EQ(bits, r.bits) << r.key << "/" << r.size;
    }
}

TEST(ConfigExpand, ReferencesUnknownKeysAndLoops)
{
    Config c(mox_read_config_mem("root_dir = /srv/tarn\nstorage = $root_dir/storage\n"
                                 "braced = ${root_dir}x\nnested = $storage/nfs.\n"
                                 "dollar = cost $$5\nunknown = $nope/x\nself = a$self\n"
                                 "ping = $pong\npong = <$ping>\nopen = ${root_dir\n"));
    const std::pair<const char *, const char *> want[] = {{"storage", "/srv/tarn/storage"},
                                                          {"braced", "/srv/tarnx"},
                                                          {"nested", "/srv/tarn/storage/nfs."},
                                                          {"dollar", "cost $5"},
                                                          {"unknown", "$nope/x"},
                                                          {"self", "a$self"},
                                                          {"ping", "<$ping>"},
                                                          {"open", "${root_dir"}};
    const char *v = nullptr;
    for (const auto &[key, value] : want) {
        EXPECT_EQ(mox_config_getstr_expand(c.get(), key, &v), 0) << key;
        EXPECT_STREQ(v, value) << key;
    }
    EXPECT_EQ(mox_config_getstr_expand(c.get(), "missing", &v), -8);
    // Results stay valid after the value changes.
    const char *before = nullptr;
    mox_config_getstr_expand(c.get(), "storage", &before);
    mox_config_setstr(c.get(), "root_dir", "/other");
    EXPECT_EQ(mox_config_getstr_expand(c.get(), "storage", &v), 0);
    EXPECT_STREQ(v, "/other/storage");
    EXPECT_STREQ(before, "/srv/tarn/storage");
}

TEST(ConfigExpand, DoublingChainsAndLongChainsStayBounded)
{
    // k and e: each key references the previous one twice (2^40 copies
    // unbounded; e doubles nothing). c: deeper than any coroutine stack.
    // (Strings are built by appending: GCC 12 at -O3 misreports "lit" + str.)
    struct Chain {
        const char *key;
        int refs, length;
    };
    std::string text = "k0 = x\ne0 =\n";
    for (const Chain &ch : {Chain{"k", 2, 40}, Chain{"e", 2, 40}, Chain{"c", 1, 5000}}) {
        for (int i = 1; i <= ch.length; ++i) {
            text.append(ch.key).append(std::to_string(i)).append(" =");
            for (int r = 0; r < ch.refs; ++r)
                text.append(r == 0 ? " $" : "$").append(ch.key).append(std::to_string(i - 1));
            text.append("\n");
        }
    }
    Config c(mox_read_config_mem(text.c_str()));
    ASSERT_NE(c, nullptr);
    const char *v = nullptr;
    EXPECT_EQ(mox_config_getstr_expand(c.get(), "k10", &v), 0);
    EXPECT_EQ(strlen(v), 1024u);
    EXPECT_EQ(mox_config_getstr_expand(c.get(), "k40", &v), -29);
    EXPECT_EQ(mox_config_getstr_expand(c.get(), "e40", &v), 0);
    EXPECT_STREQ(v, "");
    EXPECT_EQ(mox_config_getstr_expand(c.get(), "c5000", &v), 0);
    EXPECT_STREQ(v, "$c4935"); // 64 levels are followed, the rest stays as written
}

} // namespace
