// Secrets, digests, the string hash and the memory and path tests.
#include "mox/alloc.h"
#include "utils/secret.h"

#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <string>

extern "C" int tarn_utils_c_check(void);

namespace
{

std::string secret_of(size_t len)
{
    char *s = generate_hmac_secret(len);
    std::string out(s);
    mox_free(s);
    return out;
}

std::string hex(const unsigned char *p, size_t n)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < n; ++i) {
        out += digits[p[i] >> 4];
        out += digits[p[i] & 15];
    }
    return out;
}

TEST(CInterface, HeaderServesCPrograms)
{
    EXPECT_EQ(tarn_utils_c_check(), 1);
}

TEST(HmacSecret, HasExactLengthAndOnlyBase64CharactersWithoutPadding)
{
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    // Lengths around every position of the 4-character groups, where the
    // padding of the full encoding would fall.
    for (size_t len : {0, 1, 2, 3, 4, 5, 39, 40, 41, 42, 64}) {
        std::string s = secret_of(len);
        EXPECT_EQ(s.size(), len) << len;
        EXPECT_EQ(s.find_first_not_of(alphabet), std::string::npos) << len << ": " << s;
    }
}

TEST(HmacSecret, CallsGiveDifferentSecrets)
{
    std::set<std::string> seen;
    for (int i = 0; i < 16; ++i)
        seen.insert(secret_of(40));
    EXPECT_EQ(seen.size(), 16u);
}

TEST(HmacSecret, RandomBytesFillTheWholeBuffer)
{
    // Four zero words in a row from a working source are out of reach.
    unsigned char buf[32];
    memset(buf, 0, sizeof buf);
    EXPECT_EQ(mox_xget_urandom(buf, sizeof buf), 0);
    EXPECT_FALSE(is_zero_mem(buf, sizeof buf));
}

TEST(Sha256, KnownVectors)
{
    struct Case {
        std::string input;
        const char *digest;
    };
    const Case cases[] = {
        {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {std::string(64, '\0'), // the length counts, not a terminating NUL
         "f5a5fd42d16a20302798ef6ed309979b43003d2320d9f0e8ea9831a92759fb4b"},
        {std::string(1000, 'a'),
         "41edece42d63e8d9bf515a9ba6932e1c20cbc9f5a5d134645adb5db1b9737ea3"},
    };
    for (const auto &c : cases) {
        unsigned char digest[TARN_SHA256_LEN + 1];
        digest[TARN_SHA256_LEN] = 0xA5; // nothing past the digest is touched
        calculate_sha(c.input.data(), static_cast<uint32_t>(c.input.size()), digest);
        EXPECT_EQ(hex(digest, TARN_SHA256_LEN), c.digest) << c.input.size() << " bytes";
        EXPECT_EQ(digest[TARN_SHA256_LEN], 0xA5);
    }
}

TEST(K33Hash, KnownValues)
{
    struct Case {
        const char *str;
        uint64_t hash;
    };
    const Case cases[] = {
        {"", 5381},
        {"a", 177670},
        {"ab", 5863208},
        {"quillon-tarn-ctl", 4863275785996252987ull}, // wraps modulo 2^64
        {"\xE9", 5381 * 33 - 23},                     // high bytes count as negative
        {"\xFF\xFF", 5859875},
        {"\xE9\xE9\xE9\xE9\xE9\xE9\xE9\xE9\xE9\xE9\xE9\xE9\xE9\xE9\xE9\xE9\xE9\xE9\xE9\xE9",
         7593798098473461113ull},
    };
    for (const auto &c : cases)
        EXPECT_EQ(k33_hash(c.str), c.hash) << c.str;
}

TEST(ZeroMem, FindsANonZeroByteAnywhereAtAnyAlignment)
{
    alignas(8) unsigned char storage[48];
    for (uint32_t len : {0u, 1u, 7u, 8u, 9u, 16u, 17u, 23u}) {
        for (size_t shift = 0; shift < 8; ++shift) {
            unsigned char *buf = storage + 8 + shift;
            memset(storage, 0, sizeof storage);
            buf[-1] = buf[len] = 1; // just outside the range tested
            EXPECT_EQ(is_zero_mem(buf, len), 1) << len << "+" << shift;
            for (uint32_t pos = 0; pos < len; ++pos) {
                buf[pos] = 0x80;
                EXPECT_EQ(is_zero_mem(buf, len), 0) << len << "+" << shift << " at " << pos;
                buf[pos] = 0;
            }
        }
    }
}

TEST(AbsolutePath, OnlyALeadingSlashCounts)
{
    struct Case {
        const char *path;
        int absolute;
    };
    const Case cases[] = {
        {"/", 1}, {"/var/lib", 1}, {"//x", 1}, {"", 0}, {"var/lib", 0}, {"./x", 0}, {" /x", 0},
    };
    for (const auto &c : cases)
        EXPECT_EQ(is_absolute_path(c.path), c.absolute) << '"' << c.path << '"';
}

} // namespace
