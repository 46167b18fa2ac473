// The replication command's options as a user meets them, through the real
// binary (no gateway is reached), and the path rules its operations apply.
#include "replication/replication.h"
#include "sandbox.h"

#include <gtest/gtest.h>

using tarn_test::run_tool;

namespace
{

const char kUsage[] =
    "Account and file replication tool.\n"
    "\n"
    "Replication options:\n"
    "  --master-addr <addr>                   address of a master site\n"
    "  --master-uid <uid>                     $dc_uid of a master site\n"
    "  --master-cert <path>                   tarn.pem of a master site\n"
    "  --slave-addr <addr>                    address of a slave site\n"
    "  --slave-uid <uid>                      $dc_uid of a slave site\n"
    "  --slave-cert <path>                    tarn.pem of a slave site\n"
    "  --enable </account>                    enable replication of files in /account\n"
    "  --disable </account>                   disable replication of files in /account\n"
    "     -f, --force                         disable even if slave is unavailable\n"
    "\n"
    "  --join-slave </account>                enable replication of files in /account, and use an "
    "existing slave replica\n"
    "  --detach </account>                    promote the slave replica of /account to the master\n"
    "  --switch-to-slave </account>           demote the master replica of /account to the slave\n"
    "  --auto                                 configure TARN to automatically enable replication "
    "to a specified slave\n"
    "Other options:\n"
    "  -h                                     print this message\n";

const std::vector<std::string> M = {"--master-addr", "a", "--master-uid", "u",
                                    "--master-cert", "c"};
const std::vector<std::string> S = {"--slave-addr", "a", "--slave-uid", "u", "--slave-cert", "c"};

std::vector<std::string> cat(std::initializer_list<std::vector<std::string>> parts)
{
    std::vector<std::string> out;
    for (const auto &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

std::string needs(const std::string &opt, const std::string &site)
{
    return "ERROR: " + opt + ": --" + site + "-addr, --" + site + "-uid, and --" + site +
           "-cert are required\n\n";
}

struct Case {
    std::vector<std::string> args; // after "replication"
    int status;
    std::string err; // 255: what precedes the usage text; else a part of stderr
};

const std::vector<Case> &cases()
{
    static const std::vector<Case> c = {
        {{}, 0, ""},
        {{"--force"}, 0, ""},
        {cat({{"--enable", "/acc"}, M, S}), 255, needs("--enable", "master")},
        {cat({M, {"--enable", "/acc"}, S}), 255, needs("--enable", "slave")},
        {cat({M, {"--slave-addr", "a", "--slave-uid", "u", "--enable", "/acc"}}), 255,
         needs("--enable", "slave")},
        {cat({M, {"--disable", "/acc"}}), 255, needs("--disable", "slave")},
        {cat({S, {"--disable", "/acc"}}), 255, needs("--disable", "master")},
        {{"--join-slave", "/acc"}, 255, needs("--join", "slave")},
        {cat({S, {"--join-slave", "/acc"}}), 255, needs("--join", "master")},
        {cat({M, {"--check-consistency", "/acc"}}), 255, needs("--check-consistency", "slave")},
        {cat({S, {"--check-consistency", "/acc"}}), 255, needs("--check-consistency", "master")},
        {cat({M, {"--detach", "/acc"}}), 255, needs("--detach", "slave")},
        {cat({S, {"--switch-to-slave", "/acc"}}), 255, needs("--switch-to-slave", "master")},
        {{"--master-addr", "a", "--master-uid", "u", "--switch-to-slave", "/acc"},
         255,
         needs("--switch-to-slave", "master")},
        {{"--auto"}, 255, needs("--auto", "slave")},
        {cat({S, {"--auto=x"}}), 255, "Unknown option '--auto=x'.\n"},
        {cat({S, {"--auto", "/acc"}}), 255, "Can't parse '/acc' as an argument.\n"},
        {{"-f"}, 255, "Unknown option '-f'.\n"},
        {{"--master", "x"}, 255, "Unknown option '--master'.\n"},
        {{"--enable"}, 255, "Unknown option '--enable'.\n"},
        {{"-h"}, 255, ""},
        {{"--he"}, 255, ""},
        // Empty arguments count as given; the account is refused only when
        // the operation runs, after the ones before it.
        {{"--master-addr", "", "--master-uid", "", "--master-cert", "", "--switch-to-slave", "acc"},
         1,
         " E use: --switch-to-slave /account\n"},
        {cat({S, {"--detach", "/a/b"}}), 1, " E use: --detach /account\n"},
        {cat({M, S, {"--check", "acc"}}), 1, " E use: --check-consistency /account\n"},
        {cat({M, S, {"--join-s", "acc/"}}), 1, " E use: --join-to-slave /account\n"},
        {cat({M, S, {"--enable", ""}}), 1, " E use: --enable /account\n"},
        {cat({M, S, {"--disable", "x", "--enable", "/"}}), 1, " E use: --disable /account\n"},
    };
    return c;
}

TEST(ReplicationOpts, Table)
{
    for (const Case &c : cases()) {
        std::vector<std::string> args = {"-c", "/nonexistent/tarn.config", "replication"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        std::string line;
        for (const auto &a : c.args)
            line += " '" + a + "'";
        SCOPED_TRACE(line);
        auto r = run_tool(args);
        EXPECT_EQ(r.status, c.status) << r.err;
        if (c.status == 255)
            EXPECT_EQ(r.err, c.err + kUsage);
        else if (c.err.empty())
            EXPECT_EQ(r.err, "");
        else
            EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
    }
}

} // namespace

TEST(ReplicationPaths, TemporaryFilesAndAccountPaths)
{
    const std::pair<const char *, int> temp[] = {
        {"/acc/.tmp.1234.xml", 1}, {".tmp.xml", 1},       {"/acc/a.xml", 0},
        {"/acc/~x.kpa.meta", 1},   {"~x.KPA.meta", 1},    {"/a/~.kpa.meta", 1},
        {"/acc/x.kpa.meta", 0},    {"/a/~x.Kpa.meta", 0}, {"/acc/.tmp.dir/file.xml", 0},
        {"/acc/.tmp", 0}};
    for (const auto &[path, want] : temp)
        EXPECT_EQ(fes_file_is_temp(path), want) << path;
    const std::pair<const char *, int> top[] = {{"/acc", 1},  {"/", 1},        {"acc", 0},
                                                {"/acc/", 0}, {"/acc/sub", 0}, {"", 0}};
    for (const auto &[path, want] : top)
        EXPECT_EQ(is_toplevel_dir(path), want) << path;
}
