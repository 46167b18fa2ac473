// Directory handles: paged listings, children and their failures.
#include "co_runner.h"
#include "ember/ar_io.h"
#include "gateway_sim.h"
#include "mox/mox.h"

#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

using ember_test::cert_client;
using ember_test::Sim;
using tarn_test::run_in_coroutine;

namespace
{

// `prefix` and the number.
std::string numbered(const char *prefix, int i)
{
    std::string name = prefix;
    name += std::to_string(i);
    return name;
}

// Every entry of `dir` as "name:type" (d, f or l), in delivery order.
int list(ar_io_dir *dir, std::vector<std::string> &out)
{
    ar_io_dir_entry *cur = nullptr;
    int rc = dir->ops->read_first(dir, nullptr, &cur, 0);
    for (; rc > 0; rc = dir->ops->read_next(dir, cur, 0)) {
        uint32_t t = cur->mode & 0xF000;
        out.push_back(std::string(cur->name) + ":" + (t == 0x4000 ? "d" : t == 0x8000 ? "f" : "l"));
    }
    if (cur)
        dir->ops->release_entry(dir, cur);
    return rc;
}

TEST(EmberDir, ListsEntriesAndChildren)
{
    Sim sim;
    sim.mkdir("/acc/a/b");
    sim.mkdir("/acc/empty");
    sim.write("/acc/a/f");
    sim.write("/acc/z");
    ASSERT_EQ(symlink("z", (sim.data() + "/acc/link").c_str()), 0);
    run_in_coroutine([&] {
        ember_client *c = cert_client(sim.addr(), "site-ec.pem");
        ar_io_dir *root = nullptr, *acc = nullptr, *a = nullptr, *e = nullptr, *x = nullptr;
        ASSERT_EQ(ar_io_open_ember_dir_cl(c, "/", &root, 0), 0);
        std::vector<std::string> names;
        EXPECT_EQ(list(root, names), 0);
        EXPECT_EQ(names, std::vector<std::string>{"acc:d"});
        ASSERT_EQ(root->ops->open_child(root, "acc", &acc, 0), 0);
        names.clear();
        EXPECT_EQ(list(acc, names), 0);
        EXPECT_EQ(names, (std::vector<std::string>{"a:d", "empty:d", "link:l", "z:f"}));
        ASSERT_EQ(acc->ops->open_child(acc, "a", &a, 0), 0);
        names.clear();
        EXPECT_EQ(list(a, names), 0);
        EXPECT_EQ(names, (std::vector<std::string>{"b:d", "f:f"}));
        ASSERT_EQ(acc->ops->open_child(acc, "empty", &e, 0), 0);
        ar_io_dir_entry *cur = nullptr;
        EXPECT_EQ(e->ops->read_first(e, nullptr, &cur, 0), 0);
        EXPECT_EQ(acc->ops->open_child(acc, "gone", &x, 0), -MOX_ENOENT);
        EXPECT_EQ(acc->ops->open_child(acc, "z", &x, 0), -MOX_ENOTDIR);
        EXPECT_EQ(x, nullptr);
        EXPECT_EQ(ar_io_open_ember_dir_cl(c, "/nobody", &x, 0), -MOX_ENOENT);
        // A directory removed after its handle was opened.
        sim.write("/acc/empty/.keep");
        ASSERT_EQ(system(("rm -rf '" + sim.data() + "/acc/empty'").c_str()), 0);
        EXPECT_EQ(e->ops->read_first(e, nullptr, &cur, 0), -MOX_ENOENT);
        for (ar_io_dir *d : {e, a, acc, root})
            ar_io_dir_put(d);
        ember_client_put(c);
    });
}

TEST(EmberDir, ListingsCrossPageBoundaries)
{
    Sim sim;
    sim.mkdir("/acc");
    const int n = 2345; // two full pages and a part
    for (int i = 0; i < n; i++)
        sim.write(numbered("/acc/f", 100000 + i), "");
    run_in_coroutine([&] {
        ember_client *c = cert_client(sim.addr(), "site-ec.pem");
        ar_io_dir *d = nullptr;
        ASSERT_EQ(ar_io_open_ember_dir_cl(c, "/acc", &d, 0), 0);
        for (int round = 0; round < 2; round++) { // a handle may be read again
            std::vector<std::string> names;
            EXPECT_EQ(list(d, names), 0);
            ASSERT_EQ(names.size(), static_cast<size_t>(n));
            for (int i = 0; i < n; i++)
                ASSERT_EQ(names[i], numbered("f", 100000 + i) + ":f");
        }
        ar_io_dir_put(d);
        ember_client_put(c);
    });
    EXPECT_NE(sim.dump().find("\"listings\":0"), std::string::npos);
}

TEST(EmberDir, ErrorOnALaterPage)
{
    Sim sim;
    sim.mkdir("/acc");
    for (int i = 0; i < 1500; i++)
        sim.write(numbered("/acc/f", i), "");
    run_in_coroutine([&] {
        ember_client *c = cert_client(sim.addr(), "site-ec.pem");
        ar_io_dir *d = nullptr;
        ASSERT_EQ(ar_io_open_ember_dir_cl(c, "/acc", &d, 0), 0);
        ar_io_dir_entry *cur = nullptr;
        ASSERT_EQ(d->ops->read_first(d, nullptr, &cur, 0), 1);
        sim.fault(R"({"op":"/v1/dir/list","path":"/acc","error":80})");
        int rc = 1, seen = 1;
        while ((rc = d->ops->read_next(d, cur, 0)) > 0)
            seen++;
        EXPECT_EQ(rc, -MOX_EIO);
        EXPECT_EQ(seen, 1000);
        d->ops->release_entry(d, cur);
        ar_io_dir_put(d);
        ember_client_put(c);
    });
}

// Real account trees hold names that are not UTF-8.
TEST(EmberDir, NamesThatAreNotUtf8)
{
    const std::string acc = "/acc\xff", dir = acc + "/d\xc3\x28";
    Sim master("dc-a"), slave("dc-b");
    master.mkdir(dir);
    master.write(acc + "/\xff", "one");
    master.write(dir + "/x\xc3\x28y", "two");
    slave.mkdir(acc);
    run_in_coroutine([&] {
        ember_client *m = cert_client(master.addr(), "site-ec.pem");
        ember_client *s = cert_client(slave.addr(), "site-rsa.pem");
        for (ember_client *c : {m, s})
            EXPECT_EQ(ember_set_trust_secret(c, acc.c_str() + 1, 1, "shared"), 0);
        ar_io_dir *d = nullptr, *sub = nullptr;
        ASSERT_EQ(ar_io_open_ember_dir_cl(m, acc.c_str(), &d, 0), 0);
        ASSERT_EQ(d->ops->open_child(d, "d\xc3\x28", &sub, 0), 0);
        std::vector<std::string> names;
        EXPECT_EQ(list(d, names), 0);
        EXPECT_EQ(list(sub, names), 0);
        EXPECT_EQ(names, (std::vector<std::string>{"d\xc3\x28:d", "\xff:f", "x\xc3\x28y:f"}));
        ar_io_dir_put(sub);
        ar_io_dir_put(d);
        std::string slave_addr = slave.addr();
        for (const std::string &f : {acc + "/\xff", dir + "/x\xc3\x28y"}) {
            ember_file *h = nullptr;
            ASSERT_EQ(ember_file_open(m, &h, f.c_str(), 0), 0);
            EXPECT_EQ(ember_file_close(h), 0);
            EXPECT_EQ(ember_file_enable_replication(m, f.c_str(), slave_addr.c_str(), "dc-b"), 0);
            char *state = nullptr;
            EXPECT_EQ(ember_file_get_state(s, f.c_str(), &state), 0);
            EXPECT_STREQ(state,
                         "replica.enabled = 1\nreplica.is_master = 0\nreplica.peer_uid = dc-a\n");
            mox_free(state);
        }
        ember_client_put(s);
        ember_client_put(m);
    });
    std::ifstream in(slave.data() + dir + "/x\xc3\x28y");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "two");
    EXPECT_NE(master.dump().find("\"b64:"), std::string::npos) << "names in the state dump";
}

} // namespace
