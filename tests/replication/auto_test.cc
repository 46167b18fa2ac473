// "--auto" writes the automatic replication file under the configured root.
#include "sandbox.h"

#include <cstring>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace
{

using tarn_test::Sandbox;

const char kWant[] = "replication.auto.enable = y\n"
                     "replication.auto.peer_addr = 10.0.0.2:8443\n"
                     "replication.auto.peer_uid = dc-b\n"
                     "replication.auto.peer_cert = rel/tarn.pem\n";

struct Case {
    const char *what;
    std::vector<std::string> files; // "conf.d/" makes the directory; "@root" has no config
    std::string err;                // a part of stderr; "" for success
};

const Case kCases[] = {
    {"new file", {"conf.d/"}, ""},
    {"replaces the file, reuses a leftover",
     {"conf.d/replication.auto", "conf.d/-replication.auto.tmp"},
     ""},
    {"no conf.d",
     {},
     " E failed to create '@root/conf.d/-replication.auto.tmp': -2 (No such file "
     "or directory)\n"},
    {"no root_dir",
     {"conf.d/", "@noroot"},
     " E --auto needs the gateway configuration: cannot read 'root_dir' from '@conf': -8 (not "
     "found)\n"},
    {"no configuration",
     {"conf.d/", "@noconf"},
     " E --auto needs the gateway configuration: cannot read 'root_dir' from '@conf', which "
     "cannot be opened or parsed\n"},
};

std::string subst(std::string s, const std::string &key, const std::string &value)
{
    for (size_t i; (i = s.find(key)) != std::string::npos;)
        s.replace(i, key.size(), value);
    return s;
}

TEST(ReplicationAuto, Table)
{
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.what);
        Sandbox sb;
        std::string root = sb.mkdir("root"), conf = sb.path("tarn.config");
        std::vector<std::pair<std::string, std::string>> pairs = {{"root_dir", root}};
        for (const auto &f : c.files) {
            if (f == "@noroot")
                pairs = {{"other", "x"}};
            else if (f.back() == '/')
                sb.mkdir("root/" + f);
            else
                sb.write_file("root/" + f, std::string(300, 'x'), 0644);
        }
        if (std::find(c.files.begin(), c.files.end(), "@noconf") == c.files.end())
            sb.write_config("tarn.config", pairs);
        // The slave given after "--auto" is not the one it writes.
        auto r = tarn_test::run_tool({"-c", conf, "replication", "--slave-uid", "dc-b",
                                      "--slave-cert", "rel/tarn.pem", "--slave-addr",
                                      "10.0.0.2:8443", "--auto", "--slave-addr", "other"});
        if (!c.err.empty()) {
            EXPECT_EQ(r.status, 1);
            EXPECT_NE(r.err.find(subst(subst(c.err, "@root", root), "@conf", conf)),
                      std::string::npos)
                << r.err;
            continue;
        }
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(sb.read_file("root/conf.d/replication.auto"), kWant);
        EXPECT_FALSE(sb.exists("root/conf.d/-replication.auto.tmp"));
        struct stat st;
        ASSERT_EQ(stat(sb.path("root/conf.d/replication.auto").c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, c.files.size() == 1 ? 0600u : 0644u) << "the reused file";
    }
}

} // namespace
