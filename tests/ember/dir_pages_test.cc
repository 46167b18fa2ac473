// Directory handles read what a gateway answers for a page: names in either
// form, and answers that break the protocol.
#include "co_runner.h"
#include "ember/ar_io.h"
#include "ember/protocol.hpp"
#include "gateway_sim.h"
#include "mox/mox.h"

#include <boost/json.hpp>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using ember_test::Sim;

namespace
{

// An entry of a page: `name` goes out as plain text when it is UTF-8 and
// base64url otherwise, as a gateway sends it.
std::string entry(const std::string &name, int mode = 0x81a4)
{
    std::string key = ember_proto::utf8_valid(name) ? "name" : "name_b64";
    std::string value = key == "name" ? name : ember_proto::base64url_encode(name);
    return "{\"" + key + "\":\"" + value + "\",\"mode\":" + std::to_string(mode) + "}";
}

std::string page(const std::string &entries, const char *rest = R"("listing":"7","more":false)")
{
    return "{\"error\":0,\"entries\":[" + entries + "]," + rest + "}";
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

TEST(EmberDirPages, NamesAndMalformedAnswers)
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
        std::string body;
        int rc;
        std::vector<std::string> names;
    } rows[] = {
        {"plain and coded names", page(mixed), 0, {"a", "\xff", "c\xc3\x28"}},
        {"forty coded names", page(coded), 0, want_coded},
        {"an empty page", page(""), 0, {}},
        {"both forms of a name", page(R"({"name":"a","name_b64":"_w","mode":1})"), -60, {}},
        {"a name that is no text", page(R"({"name":7,"mode":33188})"), -60, {}},
        {"a coded name that is UTF-8", page(R"({"name_b64":"YQ","mode":33188})"), -60, {}},
        {"a coded name that is no base64url", page(R"({"name_b64":"*","mode":1})"), -60, {}},
        {"no mode", page(R"({"name":"a"})"), -60, {}},
        {"a mode that is text", page(R"({"name":"a","mode":"1"})"), -60, {}},
        {"no name", page(R"({"mode":33188})"), -60, {}},
        {"no more", page(entry("a"), R"("listing":"7")"), -60, {}},
        {"entries that are no list",
         R"({"error":0,"entries":{},"listing":"7","more":false})",
         -60,
         {}},
    };
    Sim sim;
    sim.mkdir("/acc");
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        boost::json::object fault{
            {"op", ember_proto::op_dir_list}, {"path", "/acc"}, {"count", 1}, {"body", row.body}};
        sim.fault(boost::json::serialize(fault));
        std::vector<std::string> names;
        int rc = 1;
        tarn_test::run_in_coroutine([&] {
            ember_client *c = ember_test::cert_client(sim.addr(), "site-ec.pem");
            ar_io_dir *d = nullptr;
            ASSERT_EQ(ar_io_open_ember_dir_cl(c, "/acc", &d, 0), 0);
            rc = read_all(d, names);
            ar_io_dir_put(d);
            ember_client_put(c);
        });
        EXPECT_EQ(rc, row.rc);
        if (row.rc == 0) {
            EXPECT_EQ(names, row.names);
        }
    }
}

} // namespace
