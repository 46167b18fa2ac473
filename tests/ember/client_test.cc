// The client library: what it checks before any call, calls and directory
// handles against a simulator, and the tokens it signs.
#include "co_runner.h"
#include "ember/ar_io.h"
#include "ember/ember.h"
#include "ember/protocol.hpp"
#include "gateway_sim.h"
#include "mox/mox.h"

#include <algorithm>
#include <boost/json.hpp>
#include <gtest/gtest.h>

namespace json = boost::json;
namespace p = ember_proto;

using ember_test::cert_client;
using ember_test::jwt_client;
using ember_test::pki_file;
using ember_test::Sim;
using tarn_test::run_in_coroutine;

namespace
{

std::string take(char *s)
{
    std::string out = s ? s : "(null)";
    mox_free(s);
    return out;
}

TEST(EmberAddress, AcceptsNamesAddressesAndPorts)
{
    struct {
        const char *addr;
        int rc;
    } cases[] = {
        {"127.0.0.1", 0},     {"127.0.0.1:1", 0},  {"gw-1.example", 0}, {"[::1]", 0},
        {"[::1]:8443", 0},    {"", -30},           {":80", -30},        {"host:", -30},
        {"host:0", -30},      {"host:65536", -30}, {"host:8x", -30},    {"::1", -30},
        {"[::1", -30},        {"[::1]x", -30},     {"[]:1", -30},       {"a b", -30},
        {"[127.0.0.1]", -30}, {"host:1:2", -30},
    };
    ember_client *c = ember_client_alloc();
    for (auto &tc : cases)
        EXPECT_EQ(ember_client_set_host(c, tc.addr), tc.rc) << tc.addr;
    ember_client_put(c);
}

// Names go as text exactly when the gateway's JSON parser takes them.
TEST(EmberNames, Utf8CheckAgreesWithTheParser)
{
    const char *names[] = {
        "plain",    "caf\xc3\xa9",  "\xf0\x9f\x98\x80", "\xef\xbf\xbf",    "",
        "\xff",     "\xc3\x28",     "\xc0\x80",         "\xed\xa0\x80",    "\xf4\x90\x80\x80",
        "\xe2\x82", "\xe0\x80\x80", "\xf0\x80\x80\x80", "\xf5\x80\x80\x80"};
    for (std::string name : names) {
        boost::system::error_code ec;
        json::parse("\"" + name + "\"", ec);
        EXPECT_EQ(p::utf8_valid(name), !ec) << testing::PrintToString(name);
    }
}

// An error code sent as a status alone comes back as itself.
TEST(EmberProtocol, StatusesCarryErrorCodes)
{
    for (int code = 0; code < 100; code++) {
        if (code == p::err_malformed || code == p::err_notdir)
            continue; // they share their status with err_inval and err_noent
        EXPECT_EQ(p::err_for_status(p::status_for_err(code)),
                  p::status_for_err(code) == 500 ? p::err_io : code);
    }
}

TEST(EmberClient, CredentialsAndReferences)
{
    ember_client *web = cert_client("127.0.0.1", "web-ec.pem");
    ember_client *site = cert_client("127.0.0.1", "site-ec.pem");
    EXPECT_TRUE(ember_client_is_web(web));
    EXPECT_FALSE(ember_client_is_web(site));
    EXPECT_FALSE(ember_client_is_jwt(site));
    EXPECT_EQ(ember_client_load_auth_from_pem_file(site, "/nonexistent"), -MOX_ENOENT);
    EXPECT_EQ(ember_client_load_auth_from_pem_file(site, pki_file("ca.pem").c_str()),
              -MOX_EMALFORMED); // a certificate without its key
    EXPECT_EQ(ember_client_set_jwt(site, "not-a-token"), -MOX_EINVAL);
    EXPECT_EQ(ember_client_set_allowed_protos(site, 4), -MOX_EINVAL);
    EXPECT_EQ(ember_client_get(web), web);
    ember_client_put(web);
    ember_client_put(web);
    ember_client_put(site);
    ember_client *jwt = jwt_client("127.0.0.1", "site-rsa.pem", 11);
    EXPECT_TRUE(ember_client_is_jwt(jwt));
    ember_client_put(jwt);
}

// A token client on TLS 1.2 and a certificate client on TLS 1.3.
TEST(EmberClient, CallsOnOneGateway)
{
    Sim sim;
    sim.mkdir("/acc");
    sim.write("/acc/f");
    run_in_coroutine([&] {
        ember_client *jwt = jwt_client(sim.addr(), "site-rsa.pem", 15);
        ember_client *cert = cert_client(sim.addr(), "site-ec.pem");
        EXPECT_EQ(ember_client_set_allowed_protos(jwt, 1), 0);
        EXPECT_EQ(ember_client_set_allowed_protos(cert, 2), 0);
        EXPECT_EQ(ember_account_pull_set_ondemand_only(jwt, "acc", 1), 0);
        EXPECT_EQ(ember_account_pull_set_ondemand_only(cert, "nobody", 1), -MOX_ENOENT);
        ember_file *f = nullptr;
        EXPECT_EQ(ember_file_open(cert, &f, "/acc/missing", 0), -MOX_ENOENT);
        ASSERT_EQ(ember_file_open(jwt, &f, "/acc/f", 0), 0);
        EXPECT_EQ(ember_file_close(f), 0);
        ember_client_put(cert);
        ember_client_put(jwt);
    });
    EXPECT_NE(sim.dump().find(R"("ondemand":{"acc":1})"), std::string::npos);
}

// The header names the algorithm of the key; keys that no label fits sign
// nothing.
TEST(EmberJwt, AlgorithmFollowsTheKey)
{
    struct {
        const char *type, *curve, *alg; // no type for no key; no alg when nothing is signed
    } rows[] = {
        {"RSA", nullptr, "RS256"},
        {"EC", "P-256", "ES256"},
        {"EC", "P-384", nullptr},
        {"EC", "secp256k1", nullptr}, // 256 bits too, but not what ES256 names
        {"EC", "brainpoolP256r1", nullptr},
        {"ED25519", nullptr, nullptr},
        {nullptr, nullptr, nullptr},
    };
    for (auto &r : rows) {
        SCOPED_TRACE(r.curve ? r.curve : r.type ? r.type : "no key");
        std::string type = r.type ? r.type : "";
        EVP_PKEY *k = type == "RSA" ? EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{2048})
                      : r.curve     ? EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", r.curve)
                      : r.type      ? EVP_PKEY_Q_keygen(nullptr, nullptr, r.type)
                                    : nullptr;
        ember_jwt_request req = {"a", "b", "c", "d", "e", nullptr, 0, k};
        std::string jwt = take(ember_jwt_generate(&req)), header;
        EVP_PKEY_free(k);
        if (!r.alg) {
            EXPECT_EQ(jwt, "(null)");
            continue;
        }
        ASSERT_TRUE(p::base64url_decode(jwt.substr(0, jwt.find('.')), header)) << jwt;
        EXPECT_EQ(json::parse(header).at("alg"), r.alg);
    }
}

// An entry of a page: `name` goes out as plain text when it is UTF-8 and
// base64url otherwise, as a gateway sends it.
std::string entry(const std::string &name, int mode = 0x81a4)
{
    std::string key = p::utf8_valid(name) ? "name" : "name_b64";
    std::string value = key == "name" ? name : p::base64url_encode(name);
    return "{\"" + key + "\":\"" + value + "\",\"mode\":" + std::to_string(mode) + "}";
}

std::string page(const std::string &entries, const char *rest = R"("listing":"7","more":false)")
{
    return "{\"error\":0,\"entries\":[" + entries + "]," + rest + "}";
}

// Opens `path` as a tree walk does: from "/" one child at a time.
int open_path(ember_client *c, const std::string &path, ar_io_dir **out)
{
    int rc = ar_io_open_ember_dir_cl(c, "/", out, 0);
    for (size_t i = 1; rc == 0 && i < path.size();) {
        size_t j = std::min(path.find('/', i), path.size());
        ar_io_dir *parent = *out;
        rc = parent->ops->open_child(parent, path.substr(i, j - i).c_str(), out, 0);
        ar_io_dir_put(parent);
        i = j + 1;
    }
    return rc;
}

// Reads every entry; the names in order, or the failing code.
int read_all(ar_io_dir *d, std::vector<std::string> &names)
{
    ar_io_dir_entry *cur = nullptr;
    int rc = d->ops->read_first(d, nullptr, &cur, 0);
    for (; rc > 0; rc = d->ops->read_next(d, cur, 0))
        names.emplace_back(cur->name);
    if (cur)
        d->ops->release_entry(d, cur);
    return rc;
}

TEST(EmberDir, WalksAndReadsPages)
{
    // Many coded names on one page: each must stay where its cursor saw it
    // while the rest of the page is decoded.
    std::string coded, mixed = entry("a") + "," + entry("\xff") + "," + entry("c\xc3\x28");
    std::vector<std::string> want_coded;
    for (int i = 0; i < 40; i++) {
        want_coded.push_back("\xfe");
        want_coded.back() += std::to_string(i);
        coded.append(i ? "," : "").append(entry(want_coded.back()));
    }
    const struct {
        const char *what;
        std::string body; // of the first page of "/acc", when not empty
        int rc;
        std::vector<std::string> names{};
        const char *path = "/acc";
    } rows[] = {
        {"the root", "", 0, {"acc"}, "/"},
        {"a name that is no UTF-8", "", 0, {"x\xc3\x28y"}, "/acc/d\xc3\x28"},
        {"a file", "", -MOX_ENOTDIR, {}, "/acc/f"},
        {"nothing", "", -MOX_ENOENT, {}, "/acc/gone"},
        {"plain and coded names", page(mixed), 0, {"a", "\xff", "c\xc3\x28"}},
        {"forty coded names", page(coded), 0, want_coded},
        {"an empty page", page(""), 0},
        {"both forms of a name", page(R"({"name":"a","name_b64":"_w","mode":1})"), -60},
        {"a name that is no text", page(R"({"name":7,"mode":33188})"), -60},
        {"a coded name that is UTF-8", page(R"({"name_b64":"YQ","mode":33188})"), -60},
        {"a coded name that is no base64url", page(R"({"name_b64":"*","mode":1})"), -60},
        {"no mode", page(R"({"name":"a"})"), -60},
        {"a mode that is text", page(R"({"name":"a","mode":"1"})"), -60},
        {"no name", page(R"({"mode":33188})"), -60},
        {"no more", page(entry("a"), R"("listing":"7")"), -60},
        {"entries that are no list", R"({"error":0,"entries":{},"listing":"7","more":false})", -60},
    };
    Sim sim;
    sim.mkdir("/acc/d\xc3\x28");
    sim.write("/acc/d\xc3\x28/x\xc3\x28y");
    sim.write("/acc/f");
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        json::object fault{
            {"op", p::op_dir_list}, {"path", "/acc"}, {"count", 1}, {"body", row.body}};
        if (!row.body.empty())
            sim.fault(json::serialize(fault));
        std::vector<std::string> names;
        run_in_coroutine([&] {
            ember_client *c = cert_client(sim.addr(), "site-ec.pem");
            ar_io_dir *d = nullptr;
            int rc = open_path(c, row.path, &d);
            if (rc == 0) {
                rc = read_all(d, names);
                ar_io_dir_put(d);
            }
            EXPECT_EQ(rc, row.rc);
            ember_client_put(c);
        });
        if (row.rc == 0) {
            EXPECT_EQ(names, row.names);
        }
    }
}

// Pages follow each other in order; a handle may be read again, and a page
// that fails ends the reading with its error.
TEST(EmberDir, ListingsOfManyPages)
{
    Sim sim;
    sim.mkdir("/acc");
    std::vector<std::string> want;
    for (int i = 0; i < 2345; i++) { // two full pages and a part
        want.push_back("f" + std::to_string(100000 + i));
        sim.write("/acc/" + want.back(), "");
    }
    run_in_coroutine([&] {
        ember_client *c = cert_client(sim.addr(), "site-ec.pem");
        ar_io_dir *d = nullptr;
        ASSERT_EQ(ar_io_open_ember_dir_cl(c, "/acc", &d, 0), 0);
        std::vector<std::string> names;
        EXPECT_EQ(read_all(d, names), 0);
        EXPECT_TRUE(names == want) << names.size() << " names, not in order";
        ar_io_dir_entry *cur = nullptr;
        ASSERT_EQ(d->ops->read_first(d, nullptr, &cur, 0), 1);
        sim.fault(R"({"op":"/v1/dir/list","path":"/acc","error":80})");
        int rc = 1, seen = 1;
        while ((rc = d->ops->read_next(d, cur, 0)) > 0)
            seen++;
        EXPECT_EQ(rc, -MOX_EIO);
        EXPECT_EQ(seen, 1000);
        ar_io_dir_put(d);
        ember_client_put(c);
    });
}

} // namespace
