// The configuration text: what parses, what does not, numbers and
// references.
#include "mox/mox.h"

#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace
{

// The values of `keys`, each followed by '|'; expanded ones when `expand`.
std::string values(mox_config *cfg, std::initializer_list<const char *> keys, bool expand = false)
{
    std::string out;
    for (const char *key : keys) {
        const char *v = nullptr;
        int rc = expand ? mox_config_getstr_expand(cfg, key, &v) : mox_config_getstr(cfg, key, &v);
        out += (rc == 0 ? std::string(v) : std::to_string(rc)) + "|";
    }
    return out;
}

TEST(ConfigText, AcceptedAndRejectedLines)
{
    mox_config *c = mox_read_config_mem(
        "replication.auto.enable = y\n.type=tarn.acc-data.0\n"
        "\t storage.nfs.export\t=  /exp/a b  \r\n\n   \n# a comment = with equals\n"
        "   #log.level = 5\nempty =\neq = a=b=c\ndup = 1\ndup = 2\nlast.line=no newline");
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(values(c, {"replication.auto.enable", ".type", "storage.nfs.export", "log.level",
                         "empty", "eq", "dup", "last.line"}),
              "y|tarn.acc-data.0|/exp/a b|-8||a=b=c|2|no newline|");
    EXPECT_EQ(mox_config_size(c), 7u);
    // Values that could not come back from text are refused, not mangled.
    for (const char *value : {"a\nb", " a", "a\t"})
        EXPECT_EQ(mox_config_setstr(c, "v", value), -30) << value;
    EXPECT_EQ(mox_config_setstr(c, "bad key", "a"), -30);
    EXPECT_EQ(mox_config_setstr(c, "", "a"), -30);
    EXPECT_EQ(mox_config_unset(c, "eq"), 0);
    EXPECT_EQ(mox_config_unset(c, "eq"), -8);
    mox_free_config(c);

    for (const char *text : {"no equals sign\n", "= value without key\n", "key with space = 1\n",
                             "k$y = 1\n", "ok = 1\nbroken line\n", "ключ = 1\n", "key : value\n"})
        EXPECT_EQ(mox_read_config_mem(text), nullptr) << text;
    std::string with_nul("a = 1\n\0b = 2\n", 12);
    FILE *f = fmemopen(with_nul.data(), with_nul.size(), "r");
    c = mox_create_config();
    EXPECT_NE(mox_parse_config_file(c, f), 0);
    EXPECT_EQ(mox_config_size(c), 0u); // nothing is half-added
    fclose(f);
    mox_free_config(c);
    EXPECT_EQ(mox_read_config("/nonexistent/tarn.config"), nullptr);
}

TEST(ConfigNumbers, SizesRangesAndJunk)
{
    mox_config *c = mox_read_config_mem("a = 127\nb = -128\nc = 4294967295\nd = -1\n"
                                        "e = 12x\nf = 0x10\ng = \nh = +5\n");
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
        int rc = r.is_signed ? mox_config_getint(c, r.key, &bits, r.size)
                             : mox_config_getuint(c, r.key, &bits, r.size);
        EXPECT_EQ(rc, r.rc) << r.key << "/" << r.size;
        EXPECT_EQ(bits, r.bits) << r.key << "/" << r.size;
    }
    mox_free_config(c);
}

TEST(ConfigExpand, ReferencesUnknownKeysAndLoops)
{
    mox_config *c = mox_read_config_mem(
        "root_dir = /srv/tarn\nstorage = $root_dir/storage\nbraced = ${root_dir}x\n"
        "nested = $storage/nfs.\ndollar = cost $$5\nunknown = $nope/x\nself = a$self\n"
        "ping = $pong\npong = <$ping>\nopen = ${root_dir\n");
    const char *before = nullptr;
    mox_config_getstr_expand(c, "storage", &before);
    EXPECT_EQ(values(c,
                     {"storage", "braced", "nested", "dollar", "unknown", "self", "ping", "open",
                      "missing"},
                     true),
              "/srv/tarn/storage|/srv/tarnx|/srv/tarn/storage/nfs.|cost $5|$nope/x|a$self|"
              "<$ping>|${root_dir|-8|");
    mox_config_setstr(c, "root_dir", "/other");
    EXPECT_EQ(values(c, {"storage"}, true), "/other/storage|");
    EXPECT_STREQ(before, "/srv/tarn/storage"); // earlier results stay valid
    mox_free_config(c);
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
    mox_config *c = mox_read_config_mem(text.c_str());
    ASSERT_NE(c, nullptr);
    const char *v = nullptr;
    EXPECT_EQ(mox_config_getstr_expand(c, "k10", &v), 0);
    EXPECT_EQ(strlen(v), 1024u);
    EXPECT_EQ(mox_config_getstr_expand(c, "k40", &v), -29);
    EXPECT_EQ(mox_config_getstr_expand(c, "e40", &v), 0);
    EXPECT_STREQ(v, "");
    EXPECT_EQ(mox_config_getstr_expand(c, "c5000", &v), 0);
    EXPECT_STREQ(v, "$c4935"); // 64 levels are followed, the rest stays as written
    mox_free_config(c);
}

} // namespace
