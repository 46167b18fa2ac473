// init-dirs, set-attr and upgrade-dirs: the encoding grammar as a unit, and
// the real tool against the cluster tool stand-in, whose attribute state and
// invocation log are checked afterwards.
#include "init_dirs/init_dirs.h"
#include "mox/mox.h"
#include "sandbox.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace
{

// The eight directories of the tree, relative to the root ("" is the root).
const char *const kTreeDirs[] = {"",           "storage/",   "var/",   "var/clients/",
                                 "var/files/", "var/hosts/", "certs/", "conf.d/"};

std::vector<std::string> split(const std::string &s, char sep)
{
    std::vector<std::string> out;
    std::istringstream in(s);
    for (std::string item; std::getline(in, item, sep);) {
        if (!item.empty())
            out.push_back(item);
    }
    return out;
}

// A sandbox with a gateway configuration and the stand-in in PATH.
struct Tree {
    tarn_test::Sandbox sb;
    std::string root = sb.path("r");
    std::map<std::string, std::string> config = {{"root_dir", root}, {"storage.type", "local"}};
    std::string fail;         // the stand-in's failure pattern
    std::string slow;         // the stand-in sleeps 0.7 s in the call that holds this
    std::vector<int> signals; // sent once that call has begun

    tarn_test::RunResult run_ctl(const std::string &args) const
    {
        tarn_test::RunOptions o;
        o.path = {QUILLON_SIM_DIR};
        o.env = {"QUILLON_SIM_LOG=" + sb.path("quillon.log"), "QUILLON_SIM_FAIL=" + fail};
        o.cwd = sb.dir(); // where a command slipped into a value would leave its traces
        if (!slow.empty()) {
            o.env.push_back("QUILLON_SIM_DELAY_ON=*" + slow + "*");
            o.env.push_back("QUILLON_SIM_DELAY_MS=700");
            o.signals = signals, o.signal_file = sb.path("quillon.log"), o.signal_text = slow;
        }
        std::vector<std::string> argv = {
            "-c", sb.write_config("tarn.config", {config.begin(), config.end()})};
        for (const std::string &a : split(args, ' '))
            argv.push_back(a);
        return tarn_test::run_tool(argv, o);
    }
    // The directory's attributes as the stand-in lists them (sorted), joined by ",".
    std::string attrs_of(const std::string &rel) const
    {
        tarn_test::RunOptions o;
        o.path = {QUILLON_SIM_DIR};
        auto r = tarn_test::run({"quillon", "-A", "-q", "get-attr", path(rel)}, o);
        EXPECT_EQ(r.status, 0) << rel << ": " << r.err;
        std::replace(r.out.begin(), r.out.end(), '\n', ',');
        return r.out.substr(0, r.out.size() - !r.out.empty());
    }
    std::string path(const std::string &rel) const { return rel.empty() ? root : root + "/" + rel; }
};

// What the parser accepts shows in the attributes of the end-to-end rows;
// these are the refusals they do not reach. A negative X is final: the short
// form is not tried.
TEST(EncodingString, RefusesNegativeAndOutOfRangeNumbers)
{
    for (const char *text :
         {"encoding=3+2/-1", "encoding=-1+2", "encoding=3+-1", "encoding=2147483648+0",
          "encoding=1+2147483648", "encoding=1+0/4294967296", "Encoding=3+2", "encoding=3-2"}) {
        int32_t m, n, x;
        EXPECT_EQ(mox_parse_encoding_string(text, &m, &n, &x), -30) << text;
    }
}

const std::string kQuery =
    "quillon -A -q get-attr '@' | /bin/grep -E '(encoding|chunk-size|failure-domain|tier)='";

// A command after `setup` steps: "type TYPE", "root REL" and "no KEY" change
// the configuration (by default local storage under "r"); "mkdir REL" (at
// 0755), "rmdir REL" and "file REL" change the sandbox; "fail GLOB": the
// stand-in fails the calls that match; "slow SIGNALS TEXT": the call holding
// TEXT is slow and the signals (numbers, separated by ",") come while it
// runs; anything else is a command line that must succeed.
// `expect` ("@" stands for the root, "@G" for the query of its attributes):
// "err TEXT" (a part of standard error; "then TEXT": one after the last
// found), "root ATTRS" (what the calls on the root set, in order), "calls N"
// (the length of the invocation log), "last LINE" of the log, "tree ENCODED
// REPLICATED" (every directory at 0700 with exactly these attributes, as the
// stand-in lists them), "mode REL OCTAL", "+REL"/"-REL" (exists or not in the
// sandbox), "REL KEY=VALUE" (an attribute; "." is the root) or "REL KEY"
// (attribute absent). Lists are separated by "|".
struct TreeCase {
    const char *name;
    const char *setup;
    const char *args;
    int status;
    std::string expect;
};

const std::string kBad = "' is not a valid encoding specification; the format must be "
                         "'encoding=M+N/X' or 'encoding=M+N'";
const std::string kDefaults = ",chunk-size=2147483648,failure-domain=host";
const std::string kNfsEncoding = "err storage.type=nfs requires encoding=1+0|calls 0";
const std::string kNfsOptions =
    "err chunk-size= and failure-domain= options are not supported for storage.type=nfs|calls 0";

const TreeCase kTrees[] = {
    // The argument grammar: refusals by their message (before any call),
    // accepted command lines by what is set on the root, in order.
    {"init_user_attrs_before_defaults", "type s3",
     "init-dirs encoding=5+2 tier=1 failure-domain=disk", 0,
     "root encoding=5+2,tier=1,failure-domain=disk,chunk-size=2147483648"},
    {"init_hex_and_octal", "type azure", "init-dirs encoding=0x3+02 chunk-size=1048576", 0,
     "root encoding=3+2,chunk-size=1048576,failure-domain=host"},
    {"init_last_encoding_wins", "type google", "init-dirs encoding=3+2 encoding=4+1/1", 0,
     "root encoding=4+1/1" + kDefaults},
    {"init_chunk_size_prefix", "type swift", "init-dirs chunk-sizes=5 encoding=2+1", 0,
     "root encoding=2+1,chunk-sizes=5,failure-domain=host"},
    {"init_no_encoding", "", "init-dirs tier=1", 1,
     "err encoding= is a required parameter|calls 0"},
    {"init_nfs_zero_x", "type nfs", "init-dirs tier=2 encoding=1+0/0", 0,
     "root encoding=1+0/0,tier=2" + kDefaults},
    {"init_nfs_x", "type nfs", "init-dirs encoding=1+0/1", 1, kNfsEncoding},
    {"init_nfs_m", "type nfs", "init-dirs encoding=2+0", 1, kNfsEncoding},
    {"init_nfs_chunk_size", "type nfs", "init-dirs encoding=1+0 chunk-size=1048576", 1,
     kNfsOptions},
    {"init_nfs_failure_domain", "type nfs", "init-dirs failure-domain=disk encoding=1+0", 1,
     kNfsOptions},
    {"init_unknown_type", "type ceph", "init-dirs encoding=2+1", 1,
     "err unsupported storage.type=ceph in TARN config file|calls 0"},
    {"init_encoding_checked_first", "type ceph", "init-dirs encoding=x", 1,
     "err 'encoding=x" + kBad + "|calls 0"},
    {"init_no_storage_type", "no storage.type", "init-dirs encoding=1+0", 1,
     "err failed to find a line 'storage.type = <type>' in TARN config file: -8 (|calls 0"},
    {"init_no_root", "no root_dir", "init-dirs encoding=1+0", 1,
     "err TARN config file does not define $root_dir.\n|calls 0"},
    {"set_encoding", "init-dirs encoding=2+1", "set-attr encoding=4+1/1 tier=0", 0,
     "root encoding=4+1/1,tier=0"},
    {"set_type_before_root", "type nfs|no root_dir", "set-attr tier=3", 1,
     "err set-attr is not supported for storage.type=nfs|calls 0"},
    {"upgrade_no_root", "type ceph|no root_dir", "upgrade-dirs", 1,
     "err failed: TARN config file does not define $root_dir\n|calls 0"},
    // The exact command texts: an empty flag leaves two blanks.
    {"init_full_encoding", "", "init-dirs encoding=5+2/3", 0,
     "err setting attributes of '@': quillon -q set-attr  @ encoding=5+2/3 2>/dev/null\n"
     "|err quillon -A -q set-attr @/var/ mds-storage=0 2>/dev/null\n"
     "|err quillon -A -q set-attr @/var/ map-type=PLAIN 2>/dev/null\n"
     "|err quillon -q set-attr  @/var/ replicas=3:2 2>/dev/null\n"
     "|err quillon -A -q set-attr  @/var/ failure-domain=host\n|calls 36|tree chunk-size="
     "2147483648,encoding=5+2/3,failure-domain=host chunk-size=2147483648,failure-domain=host,"
     "map-type=PLAIN,mds-storage=0,replicas=3:2"},
    // The replica count is N + 1 for every N the encoding parser accepts.
    {"largest_replica_count", "", "init-dirs encoding=1+2147483647", 0,
     "var/ replicas=2147483648:2147483647"},
    {"init_accepts_existing_directories", "mkdir r/var", "init-dirs encoding=5+2 tier=1", 0,
     "calls 44|mode var/ 0755|. encoding=5+2|var/ replicas=3:2"},
    // NFS storage keeps list attributes off replicated directories.
    {"init_nfs", "type nfs", "init-dirs encoding=1+0", 0,
     "err quillon -q set-attr  @/certs/ mds-storage=1 2>/dev/null\n|calls 30|tree "
     "chunk-size=2147483648,encoding=1+0,failure-domain=host "
     "map-type=PLAIN,mds-storage=1,replicas=1:1"},
    {"set_encoding_recurses_into_four_directories",
     "init-dirs encoding=5+2/3|mkdir r/storage/archive|mkdir r/var/clients/c1",
     "set-attr encoding=4+1/1", 0,
     "err quillon -q set-attr -R @/storage/ encoding=4+1/1 2>/dev/null\n"
     "|err quillon -q set-attr  @ encoding=4+1/1 2>/dev/null\n"
     "|err quillon -q set-attr  @/var/clients/ replicas=2:1 2>/dev/null\n"
     "|calls 20|. encoding=4+1/1|storage/archive encoding=4+1/1"
     "|var/clients/c1 replicas=2:1|conf.d/ replicas=2:1"},
    {"set_attributes_only", "init-dirs encoding=5+2/3", "set-attr tier=3", 0,
     "err quillon -A -q set-attr  @ tier=3\n|calls 8|. tier=3|. encoding=5+2/3"
     "|var/hosts/ replicas=3:2"},
    {"set_failure_keeps_earlier_changes",
     "init-dirs encoding=5+2/3|fail *set-attr -R */var/ tier=3", "set-attr tier=3", 1,
     "err failed to set 'tier=3' on '@/var/': -30 ("
     "|err failed to update parameters of directories under '@'"
     "|storage/ tier=3|var/clients/ tier|+r/var/clients|+r/conf.d"},
    // A failed init-dirs leaves no empty directory behind.
    {"init_failure_removes_empty_directories", "fail *set-attr */var/clients/ replicas=*",
     "init-dirs encoding=5+2/3", 1,
     "err failed to configure encoding/replicas attribute of '@/var/clients/': -30 ("
     "|err failed to initialise directories for TARN|-r"
     "|last -q set-attr @/var/clients/ replicas=3:2"},
    {"init_failure_keeps_what_holds_something",
     "file r/storage/keep|fail */certs/ failure-domain=host", "init-dirs encoding=2+1", 1,
     "err failed to set 'failure-domain=host' on '@/certs/': -30 "
     "(|+r/storage/keep|-r/var|-r/certs"},
    {"init_where_nothing_can_be_created", "file file|root file/r", "init-dirs encoding=2+1", 1,
     "err failed to create '@': -20 (Not a directory)"
     "|err failed to initialise directories for TARN|calls 0"},
    {"upgrade_creates_missing_with_the_root_attributes",
     "init-dirs encoding=5+2/3 tier=1 chunk-size=1048576|rmdir r/conf.d|rmdir r/var/hosts",
     "upgrade-dirs", 0,
     "err getting attributes of '@': @G\n|calls 41|tree "
     "chunk-size=1048576,encoding=5+2/3,failure-domain=host,tier=1 "
     "chunk-size=1048576,failure-domain=host,map-type=PLAIN,mds-storage=0,replicas=3:2,tier=1"},
    {"upgrade_without_tier_creates_nothing", "init-dirs encoding=5+2|rmdir r/conf.d",
     "upgrade-dirs", 1,
     "err failed to find 'tier' attr in the output of '@G'\n|err failed to upgrade directories "
     "under '@'|calls 1|last -A -q get-attr "
     "@|-r/conf.d|+r/var"},
    {"upgrade_failure_removes_nothing",
     "init-dirs encoding=3+1 tier=2|rmdir r/conf.d|fail */conf.d/ tier=2", "upgrade-dirs", 1,
     "err failed to set 'tier=2' on '@/conf.d/': -30 ("
     "|err failed to upgrade directories under '@'|+r/conf.d|conf.d/ replicas=2:1"},
    {"set_creates_nothing", "init-dirs encoding=5+2/3|rmdir r/conf.d", "set-attr tier=1", 1,
     "err failed to set 'tier=1' on '@/conf.d/': -30 (|-r/conf.d|certs/ tier=1"},
    // SIGINT or SIGTERM while a call is slow: the call runs to its end and
    // the command stops after it with 128 + the signal; a second signal ends
    // the run at once; SIGUSR1 and SIGQUIT change nothing.
    {"sigint_during_init", "slow 2 /var/clients/ replicas=", "init-dirs encoding=2+1", 130,
     "err received SIGINT; stopping after the running step"
     "|then /var/clients/'; the tree's empty directories are removed"
     "|then terminated by signal SIGINT|-r"},
    {"sigterm_then_sigint", "slow 15,2 /var/clients/ replicas=", "init-dirs encoding=2+1", 130,
     "err received SIGTERM; stopping after the running step|then terminated by signal SIGINT"
     "|+r/var/clients"},
    {"sigusr1_sigquit_ignored", "slow 10,3 /var/clients/ replicas=", "init-dirs encoding=2+1", 0,
     "+r/conf.d"},
    {"sigterm_during_set", "init-dirs encoding=2+1|slow 15 /var/ tier=3", "set-attr tier=3", 143,
     "err received SIGTERM; stopping after the running step"
     "|then /var/clients/'; the directories before it keep their new attributes"
     "|var/ tier=3|certs/ tier"},
    // Shell syntax in the root or in an attribute reaches the stand-in as
    // text: nothing runs, and the value is stored as given.
    {"hostile_root_set", "root r $(touch pwned)|init-dirs encoding=2+1 tier=1", "set-attr tier=2",
     0, "conf.d/ tier=2"},
    {"hostile_root_and_attribute", "root r'$(touch pwned)'",
     "init-dirs encoding=2+1 tier=`touch${IFS}pwned`", 0, "conf.d/ replicas=2:1"},
    {"hostile_root_and_attribute_upgrade",
     "root r'$(touch pwned)'|init-dirs encoding=2+1 tier=$(touch${IFS}pwned)"
     "|rmdir r'$(touch pwned)'/conf.d",
     "upgrade-dirs", 0, "conf.d/ tier=$(touch${IFS}pwned)|conf.d/ replicas=2:1"},
};

void prepare(Tree &t, const std::string &step)
{
    std::string word = step.substr(0, step.find(' '));
    std::string rest = step.substr(std::min(step.size(), word.size() + 1));
    if (word == "type") {
        t.config["storage.type"] = rest;
    } else if (word == "root") {
        t.config["root_dir"] = t.root = t.sb.path(rest);
    } else if (word == "no") {
        t.config.erase(rest);
    } else if (word == "fail") {
        t.fail = rest;
    } else if (word == "slow") {
        std::string names = rest.substr(0, rest.find(' '));
        t.slow = rest.substr(names.size() + 1);
        for (const std::string &n : split(names, ','))
            t.signals.push_back(std::stoi(n));
    } else if (word == "mkdir") {
        t.sb.mkdir(rest, 0755);
    } else if (word == "rmdir") {
        ASSERT_EQ(rmdir(t.sb.path(rest).c_str()), 0) << rest;
    } else if (word == "file") {
        t.sb.write_file(rest, "x");
    } else {
        auto r = t.run_ctl(step);
        ASSERT_EQ(r.status, 0) << step << ": " << r.err;
    }
}

void check(const Tree &t, const std::string &check, const std::vector<std::string> &log,
           const std::string &err, size_t &at)
{
    auto w = split(check, ' ');
    std::string rest = check.substr(std::min(check.size(), w[0].size() + 1));
    for (size_t at = 0; (at = rest.find("@G", at)) != std::string::npos; at += kQuery.size())
        rest.replace(at, 2, kQuery);
    for (size_t at = 0; (at = rest.find('@', at)) != std::string::npos; at += t.root.size())
        rest.replace(at, 1, t.root);
    auto mode = [&t](const std::string &rel) {
        struct stat st;
        return stat(t.path(rel).c_str(), &st) == 0 ? st.st_mode & 07777 : 0u;
    };
    if (w[0] == "err" || w[0] == "then") {
        at = err.find(rest, w[0] == "then" ? at : 0);
        EXPECT_NE(at, std::string::npos) << err;
    } else if (w[0] == "root") {
        std::vector<std::string> on_root;
        for (const std::string &line : log) {
            auto at = line.find(" " + t.root + " ");
            if (at != std::string::npos)
                on_root.push_back(line.substr(at + t.root.size() + 2));
        }
        EXPECT_EQ(on_root, split(rest, ','));
    } else if (w[0] == "calls") {
        EXPECT_EQ(log.size(), std::stoul(w[1])) << testing::PrintToString(log);
    } else if (w[0] == "last") {
        EXPECT_EQ(log.empty() ? "" : log.back(), rest);
    } else if (w[0] == "tree") {
        for (std::string rel : kTreeDirs) {
            EXPECT_EQ(mode(rel), 0700u) << rel;
            EXPECT_EQ(t.attrs_of(rel), rel.empty() || rel == "storage/" ? w[1] : w[2]) << rel;
        }
    } else if (w[0] == "mode") {
        EXPECT_EQ(mode(w[1]), std::stoul(w[2], nullptr, 8)) << w[1];
    } else if (w[0][0] == '+' || w[0][0] == '-') {
        EXPECT_EQ(t.sb.exists(w[0].substr(1)), w[0][0] == '+');
    } else {
        std::string attrs = "," + t.attrs_of(w[0] == "." ? "" : w[0]) + ",";
        bool absent = w[1].find('=') == std::string::npos;
        EXPECT_EQ(attrs.find("," + w[1] + (absent ? "=" : ",")) == std::string::npos, absent)
            << attrs;
    }
}

TEST(Dirs, CommandsOnTheTree)
{
    tarn_test::Sandbox probe;
    if (setxattr(probe.dir().c_str(), "user.quillon.probe", "1", 1, 0) != 0)
        GTEST_SKIP() << "no user extended attributes in " << probe.dir() << ": " << strerror(errno);
    for (const TreeCase &c : kTrees) {
        SCOPED_TRACE(c.name);
        Tree t;
        for (const std::string &step : split(c.setup, '|'))
            prepare(t, step);
        t.sb.write_file("quillon.log", "");
        auto r = t.run_ctl(c.args);
        EXPECT_EQ(r.status, c.status) << r.err;
        ASSERT_FALSE(r.timed_out) << "the command did not end within 30 s";
        EXPECT_EQ(r.err.find("signal") != std::string::npos, c.status == 130 || c.status == 143)
            << r.err;
        auto log = split(t.sb.read_file("quillon.log"), '\n');
        size_t at = 0;
        for (const std::string &what : split(c.expect, '|')) {
            SCOPED_TRACE(what);
            check(t, what, log, r.err, at);
        }
        EXPECT_FALSE(t.sb.exists("pwned")) << "a value ran as a shell command";
    }
}

} // namespace
