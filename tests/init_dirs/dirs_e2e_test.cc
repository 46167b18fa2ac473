// init-dirs, set-attr and upgrade-dirs end to end: the tool runs the
// cluster tool stand-in, whose attribute state and invocation log are
// checked afterwards.
#include "dirs_fixture.h"

#include <sys/stat.h>
#include <unistd.h>

namespace
{

using tarn_test::AttrMap;
using tarn_test::DirsTest;
using tarn_test::kTreeDirs;

bool is_encoded(const std::string &rel)
{
    return rel.empty() || rel == "storage/";
}

bool has(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

class Dirs : public DirsTest
{
  protected:
    // The invocations init-dirs makes for the tree, in order.
    std::vector<std::string> init_log(const std::string &encoding, const std::string &replicas,
                                      const std::vector<std::string> &attrs, bool nfs) const
    {
        std::vector<std::string> log;
        for (const char *rel : kTreeDirs) {
            std::string p = tree_path(rel);
            if (is_encoded(rel)) {
                log.push_back("-q set-attr " + p + " encoding=" + encoding);
            } else {
                log.push_back("-A -q set-attr " + p + " mds-storage=0");
                log.push_back("-A -q set-attr " + p + " map-type=PLAIN");
                log.push_back("-q set-attr " + p + " replicas=" + replicas);
                if (nfs) {
                    log.push_back("-q set-attr " + p + " mds-storage=1");
                    continue;
                }
            }
            for (const std::string &a : attrs)
                log.push_back("-A -q set-attr " + p + " " + a);
        }
        return log;
    }

    void expect_tree(const AttrMap &encoded, const AttrMap &replicated)
    {
        for (const char *rel : kTreeDirs) {
            SCOPED_TRACE(rel);
            struct stat st;
            ASSERT_EQ(stat(tree_path(rel).c_str(), &st), 0);
            EXPECT_EQ(st.st_mode & 07777, 0700u);
            EXPECT_EQ(attrs_of(tree_path(rel)), is_encoded(rel) ? encoded : replicated);
        }
    }
};

const char kChunk[] = "chunk-size=2147483648";
const char kDomain[] = "failure-domain=host";

TEST_F(Dirs, InitWithFullEncodingOnLocalStorage)
{
    auto r = run_ctl({"init-dirs", "encoding=5+2/3"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(take_log(), init_log("5+2/3", "3:2", {kChunk, kDomain}, false));
    AttrMap common = {{"chunk-size", "2147483648"}, {"failure-domain", "host"}};
    AttrMap encoded = common, replicated = common;
    encoded["encoding"] = "5+2/3";
    replicated.insert({{"mds-storage", "0"}, {"map-type", "PLAIN"}, {"replicas", "3:2"}});
    expect_tree(encoded, replicated);
    // The exact command texts: an empty flag leaves two blanks.
    EXPECT_TRUE(has(r.err, "setting attributes of '" + root_ + "': quillon -q set-attr  " + root_ +
                               " encoding=5+2/3 2>/dev/null\n"));
    std::string var = tree_path("var/");
    EXPECT_TRUE(has(r.err, "quillon -A -q set-attr " + var + " mds-storage=0 2>/dev/null\n"));
    EXPECT_TRUE(has(r.err, "quillon -A -q set-attr " + var + " map-type=PLAIN 2>/dev/null\n"));
    EXPECT_TRUE(has(r.err, "quillon -q set-attr  " + var + " replicas=3:2 2>/dev/null\n"));
    EXPECT_TRUE(has(r.err, "quillon -A -q set-attr  " + var + " failure-domain=host\n"));
}

// The replica count is N + 1 for every N the encoding parser accepts.
TEST_F(Dirs, LargestReplicaCountDoesNotOverflow)
{
    auto r = run_ctl({"init-dirs", "encoding=1+2147483647"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(attrs_of(tree_path("var/"))["replicas"], "2147483648:2147483647");
}

TEST_F(Dirs, InitWithShortEncodingAcceptsExistingDirectories)
{
    sb_.mkdir("r/var", 0755);
    auto r = run_ctl({"init-dirs", "encoding=5+2", "tier=1"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(take_log(), init_log("5+2", "3:2", {"tier=1", kChunk, kDomain}, false));
    struct stat st;
    ASSERT_EQ(stat(tree_path("var/").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u);
    EXPECT_EQ(attrs_of(root_)["encoding"], "5+2");
    EXPECT_EQ(attrs_of(tree_path("var/"))["replicas"], "3:2");
}

TEST_F(Dirs, InitOnNfsStorageKeepsListAttributesOffReplicatedDirectories)
{
    configure("nfs");
    auto r = run_ctl({"init-dirs", "encoding=1+0"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(take_log(), init_log("1+0", "1:1", {kChunk, kDomain}, true));
    expect_tree({{"encoding", "1+0"}, {"chunk-size", "2147483648"}, {"failure-domain", "host"}},
                {{"mds-storage", "1"}, {"map-type", "PLAIN"}, {"replicas", "1:1"}});
    EXPECT_TRUE(
        has(r.err, "quillon -q set-attr  " + tree_path("certs/") + " mds-storage=1 2>/dev/null\n"));
}

TEST_F(Dirs, SetAttrWithEncodingRecursesIntoFourDirectories)
{
    ASSERT_EQ(run_ctl({"init-dirs", "encoding=5+2/3"}).status, 0);
    sb_.mkdir("r/storage/archive");
    sb_.mkdir("r/var/clients/c1");
    take_log();
    auto r = run_ctl({"set-attr", "encoding=4+1/1"});
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<std::string> expected;
    for (const char *rel : kTreeDirs) {
        std::string p = tree_path(rel);
        bool rec = std::string(rel) == "storage/" || std::string(rel) == "var/" ||
                   std::string(rel) == "certs/" || std::string(rel) == "conf.d/";
        std::string flag = rec ? "-R " : "";
        if (is_encoded(rel)) {
            expected.push_back("-q set-attr " + flag + p + " encoding=4+1/1");
        } else {
            expected.push_back("-A -q set-attr " + p + " mds-storage=0");
            expected.push_back("-A -q set-attr " + p + " map-type=PLAIN");
            expected.push_back("-q set-attr " + flag + p + " replicas=2:1");
        }
    }
    EXPECT_EQ(take_log(), expected);
    EXPECT_TRUE(has(r.err, "quillon -q set-attr -R " + tree_path("storage/") +
                               " encoding=4+1/1 2>/dev/null\n"));
    EXPECT_TRUE(has(r.err, "quillon -q set-attr  " + root_ + " encoding=4+1/1 2>/dev/null\n"));
    EXPECT_TRUE(has(r.err, "quillon -q set-attr  " + tree_path("var/clients/") +
                               " replicas=2:1 2>/dev/null\n"));
    EXPECT_EQ(attrs_of(root_)["encoding"], "4+1/1");
    EXPECT_EQ(attrs_of(tree_path("storage/archive"))["encoding"], "4+1/1");
    EXPECT_EQ(attrs_of(tree_path("var/clients/c1"))["replicas"], "2:1");
    EXPECT_EQ(attrs_of(tree_path("conf.d/"))["replicas"], "2:1");
}

TEST_F(Dirs, SetAttrWithAttributesOnlyChangesNothingElse)
{
    ASSERT_EQ(run_ctl({"init-dirs", "encoding=5+2/3"}).status, 0);
    take_log();
    auto r = run_ctl({"set-attr", "tier=3"});
    ASSERT_EQ(r.status, 0) << r.err;
    auto log = take_log();
    ASSERT_EQ(log.size(), 8u);
    EXPECT_EQ(log[2], "-A -q set-attr -R " + tree_path("var/") + " tier=3");
    EXPECT_EQ(log[3], "-A -q set-attr " + tree_path("var/clients/") + " tier=3");
    EXPECT_TRUE(has(r.err, "quillon -A -q set-attr  " + root_ + " tier=3\n"));
    AttrMap root_attrs = attrs_of(root_);
    EXPECT_EQ(root_attrs["tier"], "3");
    EXPECT_EQ(root_attrs["encoding"], "5+2/3");
    EXPECT_EQ(attrs_of(tree_path("var/hosts/"))["replicas"], "3:2");
}

TEST_F(Dirs, SetAttrFailureKeepsEarlierChangesAndRemovesNothing)
{
    ASSERT_EQ(run_ctl({"init-dirs", "encoding=5+2/3"}).status, 0);
    auto r = run_ctl({"set-attr", "tier=3"}, "*set-attr -R */var/ tier=3");
    ASSERT_EQ(r.status, 1);
    EXPECT_TRUE(has(r.err, "failed to set 'tier=3' on '" + tree_path("var/") + "': -30 ("));
    EXPECT_TRUE(has(r.err, "failed to update parameters of directories under '" + root_ + "'"));
    EXPECT_EQ(attrs_of(tree_path("storage/"))["tier"], "3");
    EXPECT_EQ(attrs_of(tree_path("var/clients/")).count("tier"), 0u);
    for (const char *rel : kTreeDirs)
        EXPECT_TRUE(sb_.exists("r/" + std::string(rel))) << rel;
}

TEST_F(Dirs, InitFailureRemovesTheEmptyDirectories)
{
    auto r = run_ctl({"init-dirs", "encoding=5+2/3"}, "*set-attr */var/clients/ replicas=*");
    ASSERT_EQ(r.status, 1);
    EXPECT_TRUE(has(r.err, "failed to configure encoding/replicas attribute of '" +
                               tree_path("var/clients/") + "': -30 ("));
    EXPECT_TRUE(has(r.err, "failed to initialise directories for TARN"));
    EXPECT_FALSE(sb_.exists("r"));
    auto log = take_log();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back(), "-q set-attr " + tree_path("var/clients/") + " replicas=3:2");
}

TEST_F(Dirs, InitFailureKeepsDirectoriesThatHoldSomething)
{
    sb_.write_file("r/storage/keep", "x");
    auto r = run_ctl({"init-dirs", "encoding=2+1"}, "*/certs/ failure-domain=host");
    ASSERT_EQ(r.status, 1);
    EXPECT_TRUE(
        has(r.err, "failed to set 'failure-domain=host' on '" + tree_path("certs/") + "': -30 ("));
    EXPECT_TRUE(sb_.exists("r/storage/keep"));
    EXPECT_FALSE(sb_.exists("r/var"));
    EXPECT_FALSE(sb_.exists("r/certs"));
}

TEST_F(Dirs, InitFailsWhereADirectoryCannotBeCreated)
{
    sb_.write_file("file", "");
    configure("local", sb_.path("file/r"));
    auto r = run_ctl({"init-dirs", "encoding=2+1"});
    ASSERT_EQ(r.status, 1);
    EXPECT_TRUE(has(r.err, "failed to create '" + sb_.path("file/r") + "': -20 (Not a directory)"));
    EXPECT_TRUE(has(r.err, "failed to initialise directories for TARN"));
    EXPECT_TRUE(take_log().empty());
}

TEST_F(Dirs, UpgradeCreatesMissingDirectoriesWithTheRootAttributes)
{
    ASSERT_EQ(run_ctl({"init-dirs", "encoding=5+2/3", "tier=1"}).status, 0);
    ASSERT_EQ(rmdir(tree_path("conf.d/").c_str()), 0);
    ASSERT_EQ(rmdir(tree_path("var/hosts/").c_str()), 0);
    tarn_test::RunOptions o;
    o.path = {QUILLON_SIM_DIR};
    ASSERT_EQ(
        tarn_test::run({"quillon", "-A", "-q", "set-attr", root_, "chunk-size=1048576"}, o).status,
        0);
    take_log();
    auto r = run_ctl({"upgrade-dirs"});
    ASSERT_EQ(r.status, 0) << r.err;
    auto log = take_log();
    // The root is read, never changed.
    std::vector<std::string> expected = {"-A -q get-attr " + root_};
    for (const std::string &line :
         init_log("5+2/3", "3:2", {"chunk-size=1048576", "failure-domain=host", "tier=1"}, false)) {
        if (!has(line + " ", " " + root_ + " "))
            expected.push_back(line);
    }
    EXPECT_EQ(log, expected);
    EXPECT_TRUE(has(r.err, "getting attributes of '" + root_ + "': quillon -A -q get-attr '" +
                               root_ +
                               "' | /bin/grep -E '(encoding|chunk-size|failure-domain|tier)='\n"));
    AttrMap common = {{"chunk-size", "1048576"}, {"failure-domain", "host"}, {"tier", "1"}};
    AttrMap encoded = common, replicated = common;
    encoded["encoding"] = "5+2/3";
    replicated.insert({{"mds-storage", "0"}, {"map-type", "PLAIN"}, {"replicas", "3:2"}});
    expect_tree(encoded, replicated);
}

TEST_F(Dirs, UpgradeWithoutTierOnTheRootCreatesNothing)
{
    ASSERT_EQ(run_ctl({"init-dirs", "encoding=5+2"}).status, 0);
    ASSERT_EQ(rmdir(tree_path("conf.d/").c_str()), 0);
    take_log();
    auto r = run_ctl({"upgrade-dirs"});
    ASSERT_EQ(r.status, 1);
    std::string command = "quillon -A -q get-attr '" + root_ +
                          "' | /bin/grep -E '(encoding|chunk-size|failure-domain|tier)='";
    EXPECT_TRUE(has(r.err, "failed to find 'tier' attr in the output of '" + command + "'\n"));
    EXPECT_TRUE(has(r.err, "failed to upgrade directories under '" + root_ + "'"));
    EXPECT_EQ(take_log(), std::vector<std::string>{"-A -q get-attr " + root_});
    EXPECT_FALSE(sb_.exists("r/conf.d"));
    EXPECT_TRUE(sb_.exists("r/var"));
}

TEST_F(Dirs, UpgradeFailureRemovesNothing)
{
    ASSERT_EQ(run_ctl({"init-dirs", "encoding=3+1", "tier=2"}).status, 0);
    ASSERT_EQ(rmdir(tree_path("conf.d/").c_str()), 0);
    auto r = run_ctl({"upgrade-dirs"}, "*/conf.d/ tier=2");
    ASSERT_EQ(r.status, 1);
    EXPECT_TRUE(has(r.err, "failed to set 'tier=2' on '" + tree_path("conf.d/") + "': -30 ("));
    EXPECT_TRUE(has(r.err, "failed to upgrade directories under '" + root_ + "'"));
    EXPECT_TRUE(sb_.exists("r/conf.d"));
    EXPECT_EQ(attrs_of(tree_path("conf.d/"))["replicas"], "2:1");
}

TEST_F(Dirs, SetAttrCreatesNothing)
{
    ASSERT_EQ(run_ctl({"init-dirs", "encoding=5+2/3"}).status, 0);
    ASSERT_EQ(rmdir(tree_path("conf.d/").c_str()), 0);
    auto r = run_ctl({"set-attr", "tier=1"});
    ASSERT_EQ(r.status, 1);
    EXPECT_TRUE(has(r.err, "failed to set 'tier=1' on '" + tree_path("conf.d/") + "': -30 ("));
    EXPECT_FALSE(sb_.exists("r/conf.d"));
    EXPECT_EQ(attrs_of(tree_path("certs/"))["tier"], "1");
}

// Shell syntax in the root or in an attribute reaches the cluster tool as
// text: nothing runs, and the value is stored as given.
struct HostileCase {
    const char *root;                           // under the sandbox
    std::vector<std::vector<std::string>> runs; // each must succeed
    const char *tier;                           // the root's tier afterwards
};

TEST_F(Dirs, ShellSyntaxInValuesIsNeverRun)
{
    const HostileCase cases[] = {
        {"r;touch pwned;", {{"init-dirs", "encoding=2+1", "tier=1"}}, "1"},
        {"r $(touch pwned)",
         {{"init-dirs", "encoding=2+1", "tier=1"}, {"set-attr", "tier=2"}},
         "2"},
        {"r", {{"init-dirs", "encoding=2+1", "tier=1;touch pwned"}}, "1;touch pwned"},
        {"r'$(touch pwned)'", {{"init-dirs", "encoding=2+1", "tier=`touch pwned`"}}, nullptr},
        {"r'$(touch pwned)'", {{"init-dirs", "encoding=2+1", "tier=3"}, {"upgrade-dirs"}}, "3"},
        {"q",
         {{"init-dirs", "encoding=2+1", "tier=$(touch pwned)"}, {"upgrade-dirs"}},
         "$(touch pwned)"},
    };
    for (const HostileCase &c : cases) {
        SCOPED_TRACE(c.root);
        root_ = sb_.path(c.root);
        configure("local");
        for (const auto &args : c.runs) {
            if (args[0] == "upgrade-dirs") {
                ASSERT_EQ(rmdir(tree_path("conf.d/").c_str()), 0);
            }
            auto r = run_ctl(args);
            ASSERT_EQ(r.status, 0) << r.err;
        }
        EXPECT_FALSE(sb_.exists("pwned"));
        AttrMap attrs = attrs_of(tree_path("conf.d/"));
        EXPECT_EQ(attrs["replicas"], "2:1");
        if (c.tier != nullptr) {
            EXPECT_EQ(attrs["tier"], c.tier);
        }
        unlink(sb_.path("pwned").c_str());
    }
}

} // namespace
