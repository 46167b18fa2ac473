// init-dirs, set-attr and upgrade-dirs: the encoding grammar as a unit, and
// the real tool against the cluster tool stand-in, whose attribute state and
// invocation log are checked afterwards.
#include "init_dirs/init_dirs.h"
#include "mox/mox.h"
#include "sandbox.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <sstream>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

using tarn_test::RunOptions;
using tarn_test::RunResult;

namespace
{

using AttrMap = std::map<std::string, std::string>;

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
    std::string root = sb.path("r"), config, type = "local";
    bool with_root = true;
    std::string slow;         // the stand-in sleeps 0.7 s in the call that holds this
    std::vector<int> signals; // sent once that call has begun

    // Null when the stand-in can keep its attributes here; otherwise why not.
    std::optional<std::string> unusable() const
    {
        if (setxattr(sb.dir().c_str(), "user.quillon.probe", "1", 1, 0) != 0)
            return "no user extended attributes in " + sb.dir() + ": " + strerror(errno);
        removexattr(sb.dir().c_str(), "user.quillon.probe");
        return std::nullopt;
    }
    void configure()
    {
        std::vector<std::pair<std::string, std::string>> pairs;
        if (with_root)
            pairs.emplace_back("root_dir", root);
        if (type != "-")
            pairs.emplace_back("storage.type", type);
        config = sb.write_config("tarn.config", pairs);
    }
    // Runs the tool; `fail_glob` is the stand-in's failure pattern.
    RunResult run_ctl(const std::string &args, const std::string &fail_glob = "") const
    {
        RunOptions o;
        o.path = {QUILLON_SIM_DIR};
        o.env = {"QUILLON_SIM_LOG=" + sb.path("quillon.log"), "QUILLON_SIM_FAIL=" + fail_glob};
        o.cwd = sb.dir(); // where a command slipped into a value would leave its traces
        o.timeout_ms = 10000;
        if (!slow.empty()) {
            o.env.push_back("QUILLON_SIM_DELAY_ON=*" + slow + "*");
            o.env.push_back("QUILLON_SIM_DELAY_MS=700");
            o.signals = signals, o.signal_file = sb.path("quillon.log"), o.signal_text = slow;
        }
        std::vector<std::string> argv = {"-c", config};
        for (const std::string &a : split(args, ' '))
            argv.push_back(a);
        return tarn_test::run_tool(argv, o);
    }
    AttrMap attrs_of(const std::string &rel) const
    {
        RunOptions o;
        o.path = {QUILLON_SIM_DIR};
        RunResult r = tarn_test::run({"quillon", "-A", "-q", "get-attr", path(rel)}, o);
        EXPECT_EQ(r.status, 0) << rel << ": " << r.err;
        AttrMap m;
        for (const std::string &line : split(r.out, '\n')) {
            auto eq = line.find('=');
            if (eq != std::string::npos)
                m[line.substr(0, eq)] = line.substr(eq + 1);
        }
        return m;
    }
    // The stand-in's invocations so far, one line each; the log is emptied.
    std::vector<std::string> take_log() const
    {
        auto lines = split(sb.read_file("quillon.log"), '\n');
        sb.write_file("quillon.log", "");
        return lines;
    }
    std::string path(const std::string &rel) const { return rel.empty() ? root : root + "/" + rel; }
};

struct EncodingCase {
    const char *text;
    int rc;
    int32_t m, n, x; // checked only when rc is 0
};

const EncodingCase kEncodings[] = {
    {"encoding=5+2/3", 0, 5, 2, 3},
    {"encoding=0+0/0", 0, 0, 0, 0},
    {"encoding=010+0x1/0X2", 0, 8, 1, 2},
    {"encoding= 3+ 2/ 1", 0, 3, 2, 1},
    {"encoding=+3+2", 0, 3, 2, -1},
    {"encoding=3+2/1abc", 0, 3, 2, 1},
    {"encoding=3+2abc", 0, 3, 2, -1},
    {"encoding=3+2/", 0, 3, 2, -1},
    {"encoding=3+2/x", 0, 3, 2, -1},
    {"encoding=2147483647+0", 0, 2147483647, 0, -1},
    // A negative X is final: the short form is not tried.
    {"encoding=3+2/-1", -30, 0, 0, 0},
    {"encoding=-1+2", -30, 0, 0, 0},
    {"encoding=3", -30, 0, 0, 0},
    {"encoding=3-2", -30, 0, 0, 0},
    {"encoding=", -30, 0, 0, 0},
    {"encoding=a+b", -30, 0, 0, 0},
    {"Encoding=3+2", -30, 0, 0, 0},
    {"encoding=2147483648+0", -30, 0, 0, 0},
    {"encoding=1+0/4294967296", -30, 0, 0, 0},
};

TEST(EncodingString, ParsesBothFormsAndRefusesTheRest)
{
    for (const EncodingCase &c : kEncodings) {
        SCOPED_TRACE(c.text);
        int32_t m = 99, n = 99, x = 99;
        ASSERT_EQ(mox_parse_encoding_string(c.text, &m, &n, &x), c.rc);
        if (c.rc == 0) {
            EXPECT_EQ(std::vector<int32_t>({m, n, x}), std::vector<int32_t>({c.m, c.n, c.x}));
        }
    }
}

const char kInitUsage[] = "Create and prepare directories for use by TARN.\n"
                          "SYNOPSIS: init-dirs encoding=M+N[/X] [ATTR=A]...\n"
                          "See `quillon` for possible ATTR values.\n";
const char kSetUsage[] = "Change storage format of backup archives.\n"
                         "SYNOPSIS: set-attr [encoding=M+N[/X]] [ATTR=A]...\n"
                         "See `quillon` for possible ATTR values.\n";
const char kUpgradeUsage[] = "Create and prepare missing directories after TARN update.\n"
                             "SYNOPSIS: upgrade-dirs\n";

// The invocations a command makes for the whole tree, in order: "init",
// "nfs" (init on NFS storage), "upgrade" (the root is read, never changed)
// or "set" (ENCODING "-": attributes only).
std::vector<std::string> tree_log(const Tree &t, const std::string &kind, const std::string &enc,
                                  const std::string &replicas, const std::string &attrs)
{
    std::vector<std::string> log;
    if (kind == "upgrade")
        log.push_back("-A -q get-attr " + t.root);
    for (std::string rel : kTreeDirs) {
        std::string p = t.path(rel);
        if (kind == "upgrade" && rel.empty())
            continue;
        bool deep = kind == "set" &&
                    (rel == "storage/" || rel == "var/" || rel == "certs/" || rel == "conf.d/");
        std::string flag = deep ? "-R " : "";
        if (enc == "-") {
        } else if (rel.empty() || rel == "storage/") {
            log.push_back("-q set-attr " + flag + p + " encoding=" + enc);
        } else {
            log.push_back("-A -q set-attr " + p + " mds-storage=0");
            log.push_back("-A -q set-attr " + p + " map-type=PLAIN");
            log.push_back("-q set-attr " + flag + p + " replicas=" + replicas);
            if (kind == "nfs") {
                log.push_back("-q set-attr " + p + " mds-storage=1");
                continue;
            }
        }
        for (const std::string &a : split(attrs, ','))
            log.push_back("-A -q set-attr " + flag + p + " " + a);
    }
    return log;
}

AttrMap attr_map(const std::string &pairs)
{
    AttrMap m;
    for (const std::string &kv : split(pairs, ','))
        m[kv.substr(0, kv.find('='))] = kv.substr(kv.find('=') + 1);
    return m;
}

// A command after `setup` steps ("type TYPE" and "root REL" of the
// configuration, by default local and "r"; "mkdir REL" at 0755, "rmdir REL",
// "file REL" in the sandbox; "quillon ARGS" to the stand-in; "slow SIGNALS
// TEXT": the call holding TEXT is slow and the signals, INT, TERM, USR1 or
// QUIT separated by ",", come while it runs; command lines
// that must succeed), with the stand-in failing calls that match `fail`.
// `expect` ("@" stands for the root, "@G" for the root attributes' query):
// "err TEXT" (a part of standard error; "then TEXT": one after the last
// found), "log KIND ENC REPLICAS ATTRS" (the
// whole invocation log, see tree_log), "last LINE" or "only LINE" of the log,
// "nolog", "tree ENCODED REPLICATED" (every directory at 0700 with exactly
// these attributes), "mode REL OCTAL", "+REL"/"-REL" (exists or not in the
// sandbox), "REL KEY=VALUE" (an attribute; "." is the root) or "REL KEY"
// (attribute absent). Lists are separated by "|".
struct TreeCase {
    const char *name;
    const char *setup;
    const char *args;
    const char *fail;
    int status;
    std::string expect;
};

const std::string kBad = "' is not a valid encoding specification; the format must be "
                         "'encoding=M+N/X' or 'encoding=M+N'";
const std::string kDefaults = ",-A -q set-attr R chunk-size=2147483648,-A -q set-attr R "
                              "failure-domain=host";
const std::string kNoType =
    "err failed to find a line 'storage.type = <type>' in TARN config file: -8 (|nolog";
const std::string kNoRoot = "err TARN config file does not define $root_dir.\n|nolog";
const std::string kNfsEncoding = "err storage.type=nfs requires encoding=1+0|nolog";
const std::string kNfsOptions =
    "err chunk-size= and failure-domain= options are not supported for storage.type=nfs|nolog";
const std::string kDefaultAttrs = "chunk-size=2147483648,failure-domain=host";

const TreeCase kTrees[] = {
    // The argument grammar: refusals by their message (before any call),
    // accepted command lines by what is set on the root, in order.
    {"init_usage", "", "init-dirs", "", 255, kInitUsage},
    {"set_usage", "", "set-attr", "", 255, kSetUsage},
    {"upgrade_usage", "", "upgrade-dirs x", "", 255, kUpgradeUsage},
    {"init_user_attrs_before_defaults", "type s3",
     "init-dirs encoding=5+2 tier=1 failure-domain=disk", "", 0,
     "root -q set-attr R encoding=5+2,-A -q set-attr R tier=1,-A -q set-attr R failure-domain=disk,"
     "-A -q set-attr R chunk-size=2147483648"},
    {"init_hex_and_octal", "type azure", "init-dirs encoding=0x3+02 chunk-size=1048576", "", 0,
     "root -q set-attr R encoding=3+2,-A -q set-attr R chunk-size=1048576,-A -q set-attr R "
     "failure-domain=host"},
    {"init_last_encoding_wins", "type google", "init-dirs encoding=3+2 encoding=4+1/1", "", 0,
     "root -q set-attr R encoding=4+1/1" + kDefaults},
    {"init_chunk_size_prefix", "type swift", "init-dirs chunk-sizes=5 encoding=2+1", "", 0,
     "root -q set-attr R encoding=2+1,-A -q set-attr R chunk-sizes=5,-A -q set-attr R "
     "failure-domain=host"},
    {"init_negative_n", "", "init-dirs encoding=3+-1/2", "", 1,
     "err 'encoding=3+-1/2" + kBad + "|nolog"},
    {"init_no_encoding", "", "init-dirs tier=1", "", 1,
     "err encoding= is a required parameter|nolog"},
    {"init_nfs_zero_x", "type nfs", "init-dirs tier=2 encoding=1+0/0", "", 0,
     "root -q set-attr R encoding=1+0/0,-A -q set-attr R tier=2" + kDefaults},
    {"init_nfs_x", "type nfs", "init-dirs encoding=1+0/1", "", 1, kNfsEncoding},
    {"init_nfs_m", "type nfs", "init-dirs encoding=2+0", "", 1, kNfsEncoding},
    {"init_nfs_chunk_size", "type nfs", "init-dirs encoding=1+0 chunk-size=1048576", "", 1,
     kNfsOptions},
    {"init_nfs_failure_domain", "type nfs", "init-dirs failure-domain=disk encoding=1+0", "", 1,
     kNfsOptions},
    {"init_unknown_type", "type ceph", "init-dirs encoding=2+1", "", 1,
     "err unsupported storage.type=ceph in TARN config file|nolog"},
    {"init_encoding_checked_first", "type ceph", "init-dirs encoding=x", "", 1,
     "err 'encoding=x" + kBad + "|nolog"},
    {"init_no_storage_type", "type -", "init-dirs encoding=1+0", "", 1, kNoType},
    {"init_no_root", "noroot", "init-dirs encoding=1+0", "", 1, kNoRoot},
    {"set_attrs_only", "type swift|init-dirs encoding=2+1", "set-attr tier=3", "", 0,
     "root -A -q set-attr R tier=3"},
    {"set_encoding", "init-dirs encoding=2+1", "set-attr encoding=4+1/1 tier=0", "", 0,
     "root -q set-attr R encoding=4+1/1,-A -q set-attr R tier=0"},
    {"set_nfs", "type nfs", "set-attr tier=3", "", 1,
     "err set-attr is not supported for storage.type=nfs|nolog"},
    {"set_no_storage_type", "type -", "set-attr tier=3", "", 1, kNoType},
    {"set_type_before_root", "type nfs|noroot", "set-attr tier=3", "", 1,
     "err set-attr is not supported for storage.type=nfs|nolog"},
    {"set_no_root", "noroot", "set-attr tier=3", "", 1, kNoRoot},
    {"set_bad_encoding", "", "set-attr encoding=4", "", 1, "err 'encoding=4" + kBad + "|nolog"},
    {"upgrade_no_root", "type ceph|noroot", "upgrade-dirs", "", 1,
     "err failed: TARN config file does not define $root_dir\n|nolog"},
    // The exact command texts: an empty flag leaves two blanks.
    {"init_full_encoding", "", "init-dirs encoding=5+2/3", "", 0,
     "err setting attributes of '@': quillon -q set-attr  @ encoding=5+2/3 2>/dev/null\n"
     "|err quillon -A -q set-attr @/var/ mds-storage=0 2>/dev/null\n"
     "|err quillon -A -q set-attr @/var/ map-type=PLAIN 2>/dev/null\n"
     "|err quillon -q set-attr  @/var/ replicas=3:2 2>/dev/null\n"
     "|err quillon -A -q set-attr  @/var/ failure-domain=host\n|log init 5+2/3 3:2 " +
         kDefaultAttrs + "|tree encoding=5+2/3," + kDefaultAttrs +
         " mds-storage=0,map-type=PLAIN,replicas=3:2," + kDefaultAttrs},
    // The replica count is N + 1 for every N the encoding parser accepts.
    {"largest_replica_count", "", "init-dirs encoding=1+2147483647", "", 0,
     "var/ replicas=2147483648:2147483647"},
    {"init_accepts_existing_directories", "mkdir r/var", "init-dirs encoding=5+2 tier=1", "", 0,
     "log init 5+2 3:2 tier=1," + kDefaultAttrs +
         "|mode var/ 0755|. encoding=5+2|var/ replicas=3:2"},
    // NFS storage keeps list attributes off replicated directories.
    {"init_nfs", "type nfs", "init-dirs encoding=1+0", "", 0,
     "err quillon -q set-attr  @/certs/ mds-storage=1 2>/dev/null\n|log nfs 1+0 1:1 " +
         kDefaultAttrs + "|tree encoding=1+0," + kDefaultAttrs +
         " mds-storage=1,map-type=PLAIN,replicas=1:1"},
    {"set_encoding_recurses_into_four_directories",
     "init-dirs encoding=5+2/3|mkdir r/storage/archive|mkdir r/var/clients/c1",
     "set-attr encoding=4+1/1", "", 0,
     "err quillon -q set-attr -R @/storage/ encoding=4+1/1 2>/dev/null\n"
     "|err quillon -q set-attr  @ encoding=4+1/1 2>/dev/null\n"
     "|err quillon -q set-attr  @/var/clients/ replicas=2:1 2>/dev/null\n"
     "|log set 4+1/1 2:1|. encoding=4+1/1|storage/archive encoding=4+1/1"
     "|var/clients/c1 replicas=2:1|conf.d/ replicas=2:1"},
    {"set_attributes_only", "init-dirs encoding=5+2/3", "set-attr tier=3", "", 0,
     "err quillon -A -q set-attr  @ tier=3\n|log set - - tier=3|. tier=3|. encoding=5+2/3"
     "|var/hosts/ replicas=3:2"},
    {"set_failure_keeps_earlier_changes", "init-dirs encoding=5+2/3", "set-attr tier=3",
     "*set-attr -R */var/ tier=3", 1,
     "err failed to set 'tier=3' on '@/var/': -30 ("
     "|err failed to update parameters of directories under '@'"
     "|storage/ tier=3|var/clients/ tier|+r/var/clients|+r/conf.d"},
    // A failed init-dirs leaves no empty directory behind.
    {"init_failure_removes_empty_directories", "", "init-dirs encoding=5+2/3",
     "*set-attr */var/clients/ replicas=*", 1,
     "err failed to configure encoding/replicas attribute of '@/var/clients/': -30 ("
     "|err failed to initialise directories for TARN|-r"
     "|last -q set-attr @/var/clients/ replicas=3:2"},
    {"init_failure_keeps_what_holds_something", "file r/storage/keep", "init-dirs encoding=2+1",
     "*/certs/ failure-domain=host", 1,
     "err failed to set 'failure-domain=host' on '@/certs/': -30 "
     "(|+r/storage/keep|-r/var|-r/certs"},
    {"init_where_nothing_can_be_created", "file file|root file/r", "init-dirs encoding=2+1", "", 1,
     "err failed to create '@': -20 (Not a directory)"
     "|err failed to initialise directories for TARN|nolog"},
    {"upgrade_creates_missing_with_the_root_attributes",
     "init-dirs encoding=5+2/3 tier=1|rmdir r/conf.d|rmdir r/var/hosts"
     "|quillon -A -q set-attr @ chunk-size=1048576",
     "upgrade-dirs", "", 0,
     "err getting attributes of '@': @G\n"
     "|log upgrade 5+2/3 3:2 chunk-size=1048576,failure-domain=host,tier=1"
     "|tree encoding=5+2/3,chunk-size=1048576,failure-domain=host,tier=1 mds-storage=0,"
     "map-type=PLAIN,replicas=3:2,chunk-size=1048576,failure-domain=host,tier=1"},
    {"upgrade_without_tier_creates_nothing", "init-dirs encoding=5+2|rmdir r/conf.d",
     "upgrade-dirs", "", 1,
     "err failed to find 'tier' attr in the output of '@G'\n"
     "|err failed to upgrade directories under '@'|only -A -q get-attr @|-r/conf.d|+r/var"},
    {"upgrade_failure_removes_nothing", "init-dirs encoding=3+1 tier=2|rmdir r/conf.d",
     "upgrade-dirs", "*/conf.d/ tier=2", 1,
     "err failed to set 'tier=2' on '@/conf.d/': -30 ("
     "|err failed to upgrade directories under '@'|+r/conf.d|conf.d/ replicas=2:1"},
    {"set_creates_nothing", "init-dirs encoding=5+2/3|rmdir r/conf.d", "set-attr tier=1", "", 1,
     "err failed to set 'tier=1' on '@/conf.d/': -30 (|-r/conf.d|certs/ tier=1"},
    // SIGINT or SIGTERM while a call is slow: the call runs to its end and
    // the command stops after it with 128 + the signal; a second signal ends
    // the run at once; SIGUSR1 and SIGQUIT change nothing.
    {"sigint_during_init", "slow INT /var/clients/ replicas=", "init-dirs encoding=2+1", "", 130,
     "err received SIGINT; stopping after the running step"
     "|then /var/clients/'; the tree's empty directories are removed"
     "|then terminated by signal SIGINT|-r"},
    {"sigterm_then_sigint", "slow TERM,INT /var/clients/ replicas=", "init-dirs encoding=2+1", "",
     130,
     "err received SIGTERM; stopping after the running step|then terminated by signal SIGINT"
     "|+r/var/clients"},
    {"sigusr1_sigquit_ignored", "slow USR1,QUIT /var/clients/ replicas=", "init-dirs encoding=2+1",
     "", 0, "+r/conf.d"},
    {"sigterm_during_set", "init-dirs encoding=2+1|slow TERM /var/ tier=3", "set-attr tier=3", "",
     143,
     "err received SIGTERM; stopping after the running step"
     "|then /var/clients/'; the directories before it keep their new attributes"
     "|var/ tier=3|certs/ tier"},
    // Shell syntax in the root or in an attribute reaches the stand-in as
    // text: nothing runs, and the value is stored as given.
    {"hostile_root", "root r;touch pwned;", "init-dirs encoding=2+1 tier=1", "", 0,
     "conf.d/ tier=1"},
    {"hostile_root_set", "root r $(touch pwned)|init-dirs encoding=2+1 tier=1", "set-attr tier=2",
     "", 0, "conf.d/ tier=2"},
    {"hostile_attribute", "", "init-dirs encoding=2+1 tier=1;touch${IFS}pwned", "", 0,
     "conf.d/ tier=1;touch${IFS}pwned"},
    {"hostile_root_and_attribute", "root r'$(touch pwned)'",
     "init-dirs encoding=2+1 tier=`touch${IFS}pwned`", "", 0, "conf.d/ replicas=2:1"},
    {"hostile_root_upgrade",
     "root r'$(touch pwned)'|init-dirs encoding=2+1 tier=3|rmdir r'$(touch pwned)'/conf.d",
     "upgrade-dirs", "", 0, "conf.d/ tier=3"},
    {"hostile_attribute_upgrade",
     "root q|init-dirs encoding=2+1 tier=$(touch${IFS}pwned)|rmdir q/conf.d", "upgrade-dirs", "", 0,
     "conf.d/ tier=$(touch${IFS}pwned)|conf.d/ replicas=2:1"},
};

std::string at_root(std::string s, const std::string &root)
{
    const std::string query =
        "quillon -A -q get-attr '@' | /bin/grep -E '(encoding|chunk-size|failure-domain|tier)='";
    for (size_t at = 0; (at = s.find("@G", at)) != std::string::npos; at += query.size())
        s.replace(at, 2, query);
    for (size_t at = 0; (at = s.find('@', at)) != std::string::npos; at += root.size())
        s.replace(at, 1, root);
    return s;
}

void prepare(Tree &t, const std::string &step)
{
    std::string word = step.substr(0, step.find(' '));
    std::string rest = step.substr(std::min(step.size(), word.size() + 1));
    if (word == "type" || word == "root" || word == "noroot") {
        t.type = word == "type" ? rest : t.type;
        t.root = word == "root" ? t.sb.path(rest) : t.root;
        t.with_root = word != "noroot";
        t.configure();
    } else if (word == "slow") {
        std::string names = rest.substr(0, rest.find(' '));
        t.slow = rest.substr(names.size() + 1);
        for (const std::string &n : split(names, ','))
            t.signals.push_back(n == "INT"    ? SIGINT
                                : n == "TERM" ? SIGTERM
                                : n == "USR1" ? SIGUSR1
                                              : SIGQUIT);
    } else if (word == "mkdir") {
        t.sb.mkdir(rest, 0755);
    } else if (word == "rmdir") {
        ASSERT_EQ(rmdir(t.sb.path(rest).c_str()), 0) << rest;
    } else if (word == "file") {
        t.sb.write_file(rest, "x");
    } else if (word == "quillon") {
        RunOptions o;
        o.path = {QUILLON_SIM_DIR};
        std::vector<std::string> argv = split(at_root(step, t.root), ' ');
        ASSERT_EQ(tarn_test::run(argv, o).status, 0) << step;
    } else {
        auto r = t.run_ctl(step);
        ASSERT_EQ(r.status, 0) << step << ": " << r.err;
    }
}

void check(const Tree &t, const std::string &check, const std::vector<std::string> &log,
           const std::string &err, size_t &at)
{
    auto w = split(check, ' ');
    std::string rest = at_root(check.substr(std::min(check.size(), w[0].size() + 1)), t.root);
    if (w[0] == "err" || w[0] == "then") {
        at = err.find(rest, w[0] == "then" ? at : 0);
        EXPECT_NE(at, std::string::npos) << err;
    } else if (w[0] == "root") {
        std::vector<std::string> on_root;
        for (const std::string &line : log) {
            auto at = line.find(" " + t.root + " ");
            if (at != std::string::npos)
                on_root.push_back(line.substr(0, at) + " R " + line.substr(at + t.root.size() + 2));
        }
        EXPECT_EQ(on_root, split(rest, ','));
    } else if (w[0] == "log") {
        EXPECT_EQ(log, tree_log(t, w[1], w[2], w[3], w.size() > 4 ? w[4] : ""));
    } else if (w[0] == "last") {
        EXPECT_EQ(log.empty() ? "" : log.back(), rest);
    } else if (w[0] == "only" || w[0] == "nolog") {
        EXPECT_EQ(log, split(rest, '\n'));
    } else if (w[0] == "tree") {
        for (std::string rel : kTreeDirs) {
            struct stat st;
            ASSERT_EQ(stat(t.path(rel).c_str(), &st), 0) << rel;
            EXPECT_EQ(st.st_mode & 07777, 0700u) << rel;
            bool encoded = rel.empty() || rel == "storage/";
            EXPECT_EQ(t.attrs_of(rel), attr_map(encoded ? w[1] : w[2])) << rel;
        }
    } else if (w[0] == "mode") {
        struct stat st;
        ASSERT_EQ(stat(t.path(w[1]).c_str(), &st), 0) << w[1];
        EXPECT_EQ(st.st_mode & 07777, std::stoul(w[2], nullptr, 8)) << w[1];
    } else if (w[0][0] == '+' || w[0][0] == '-') {
        EXPECT_EQ(t.sb.exists(w[0].substr(1)), w[0][0] == '+');
    } else {
        AttrMap attrs = t.attrs_of(w[0] == "." ? "" : w[0]);
        auto eq = w[1].find('=');
        if (eq == std::string::npos) {
            EXPECT_EQ(attrs.count(w[1]), 0u);
        } else {
            EXPECT_EQ(attrs[w[1].substr(0, eq)], w[1].substr(eq + 1));
        }
    }
}

TEST(Dirs, CommandsOnTheTree)
{
    for (const TreeCase &c : kTrees) {
        SCOPED_TRACE(c.name);
        Tree t;
        if (auto why = t.unusable())
            GTEST_SKIP() << *why;
        t.configure();
        for (const std::string &step : split(c.setup, '|'))
            prepare(t, step);
        t.take_log();
        auto r = t.run_ctl(c.args, c.fail);
        EXPECT_EQ(r.status, c.status) << r.err;
        ASSERT_FALSE(r.timed_out) << "the command did not end within 10 s";
        EXPECT_EQ(r.err.find("signal") != std::string::npos, c.status == 130 || c.status == 143)
            << r.err;
        auto log = t.take_log();
        if (c.status == 255) {
            EXPECT_EQ(r.err, c.expect);
            continue;
        }
        size_t at = 0;
        for (const std::string &what : split(c.expect, '|')) {
            SCOPED_TRACE(what);
            check(t, what, log, r.err, at);
        }
        EXPECT_FALSE(t.sb.exists("pwned")) << "a value ran as a shell command";
    }
}

} // namespace
