// The nfs command against a simulated NFS volume: stand-ins for mount,
// umount, df, the archive tool and the mount table reader, bound over the
// system paths in a private mount namespace (tests/support/nfs_harness.h).
#include "nfs_harness.h"
#include "sandbox.h"

#include <gtest/gtest.h>
#include <optional>

using tarn_test::NfsSim;
using tarn_test::run_tool;
using tarn_test::RunResult;
using tarn_test::Sandbox;

namespace
{

using Config = std::vector<std::pair<std::string, std::string>>;

const char kUsage[] = "Mount/umount NFS volume.\n"
                      "Options:\n"
                      "      --df                    report NFS volume space usage\n"
                      "      --mount                 mount NFS volume\n"
                      "      --umount                unmount NFS volume\n"
                      "Other options:\n"
                      "  -h, --help                  print this message\n";
const char kOptions[] = "hard,timeo=20,retrans=4,fg,retry=0";

// True when `err` holds `message` as a whole error-level log line.
::testing::AssertionResult logged_error(const std::string &err, const std::string &message)
{
    size_t at = err.find(message + "\n");
    if (at != std::string::npos) {
        size_t start = at == 0 ? std::string::npos : err.rfind('\n', at - 1);
        start = start == std::string::npos ? 0 : start + 1;
        if (err.substr(start, at - start).find(" E ") != std::string::npos)
            return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "no error line \"" << message << "\" in:\n" << err;
}

class Nfs : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        TARN_REQUIRE_NAMESPACES();
        sim_.emplace(sb_);
        root_ = sb_.mkdir("r");
        mnt_ = sb_.mkdir("r/storage");
    }

    // The default configuration with `changes` applied: a pair replaces the
    // key's value, or removes the key when the value is "<unset>".
    Config config(const Config &changes = {}) const
    {
        Config c = {{"storage.type", "nfs"},
                    {"root_dir", root_},
                    {"storage.nfs.host", "srv"},
                    {"storage.nfs.export", "/exp"},
                    {"cluster.enable", "yes"}};
        for (const auto &[key, value] : changes) {
            auto it = std::find_if(c.begin(), c.end(), [&](auto &p) { return p.first == key; });
            if (it == c.end())
                c.emplace_back(key, value);
            else if (value == "<unset>")
                c.erase(it);
            else
                it->second = value;
        }
        return c;
    }

    RunResult nfs(const std::vector<std::string> &args, const Config &changes = {}) const
    {
        std::vector<std::string> argv = {"-c", sb_.write_config("tarn.config", config(changes)),
                                         "nfs"};
        argv.insert(argv.end(), args.begin(), args.end());
        return run_tool(argv, sim_->options());
    }

    std::string mount_line(const std::string &type, const std::string &lock) const
    {
        return "-t " + type + " -o " + kOptions + ",local_lock=" + lock + ",proto=tcp srv:/exp " +
               mnt_;
    }

    std::string archive_call() const { return "-f " + mnt_ + "/test.kpax -C full -F"; }

    std::string once_test() const
    {
        return "/bin/cat /proc/mounts | /bin/grep -F '" + mnt_ +
               "' | /usr/bin/wc -l | /bin/grep '^1$' >/dev/null";
    }

    std::string not_mounted_once() const
    {
        return "> $root_dir/storage is not mounted, or mounted multiple times: \"" + once_test() +
               "\" exited with error 1";
    }

    std::string param_test(const std::string &type_pattern) const
    {
        return "/bin/cat /proc/mounts | /bin/grep '^srv:/\\?/exp " + mnt_ + " " + type_pattern +
               " ' >/dev/null";
    }

    Sandbox sb_;
    std::optional<NfsSim> sim_;
    std::string root_;
    std::string mnt_;
};

struct FlagCase {
    const char *value;
    const char *type;
    const char *lock;
};

class NfsMountVersion : public Nfs, public ::testing::WithParamInterface<FlagCase>
{
};

TEST_P(NfsMountVersion, MountsCheckesAndMakesTestArchive)
{
    auto r = nfs({"--mount"}, {{"cluster.enable", GetParam().value}});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(sim_->calls("mount"),
              std::vector<std::string>{mount_line(GetParam().type, GetParam().lock)});
    EXPECT_EQ(sim_->mount_table(), std::string("srv:/exp ") + mnt_ + " " + GetParam().type +
                                       " rw,relatime," + kOptions +
                                       ",local_lock=" + GetParam().lock + ",proto=tcp 0 0\n");
    EXPECT_EQ(sim_->calls("bundlectl"), std::vector<std::string>{archive_call()});
    EXPECT_FALSE(sb_.exists("r/storage/test.kpax"));
    EXPECT_EQ(r.out, "");
}

INSTANTIATE_TEST_SUITE_P(
    ClusterEnable, NfsMountVersion,
    ::testing::Values(FlagCase{"yes", "nfs4", "none"}, FlagCase{"y", "nfs4", "none"},
                      FlagCase{"1", "nfs4", "none"}, FlagCase{"0", "nfs", "all"},
                      FlagCase{"no", "nfs", "all"}, FlagCase{"true", "nfs", "all"},
                      FlagCase{"YES", "nfs", "all"}));

TEST_F(Nfs, MountWhenMountedRunsChecksAndArchiveOnly)
{
    sim_->add_mount("srv:/exp", mnt_, "nfs4");
    sb_.write_file("r/storage/backup.kpax", "data"); // the volume's contents
    auto r = nfs({"--mount"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(sim_->calls("mount").empty());
    EXPECT_EQ(sim_->calls("bundlectl"), std::vector<std::string>{archive_call()});
    EXPECT_TRUE(sb_.exists("r/storage/backup.kpax"));
}

TEST_F(Nfs, MountRefusesNonEmptyMountPoint)
{
    sb_.write_file("r/storage/stray", "x");
    auto r = nfs({"--mount"});
    EXPECT_EQ(r.status, 122);
    EXPECT_TRUE(logged_error(r.err, "> failed while checking that mount point is empty; "
                                    "'/usr/bin/test -z \"$(/bin/ls -A '" +
                                        mnt_ + "')\"' exited with 1"));
    EXPECT_TRUE(sim_->calls("mount").empty());
}

TEST_F(Nfs, MountFailureIsReportedWithTheCommand)
{
    sim_->fail("mount", 32);
    auto r = nfs({"--mount"}, {{"cluster.enable", "no"}});
    EXPECT_EQ(r.status, 122);
    std::string command = "/bin/mount -t nfs -o " + std::string(kOptions) +
                          ",local_lock=all,proto=tcp 'srv:/exp' '" + mnt_ + "'";
    EXPECT_TRUE(logged_error(r.err, "> \"" + command + "\" exited with 32"));
    EXPECT_TRUE(sim_->calls("bundlectl").empty());
}

TEST_F(Nfs, MissingMountPointPassesEmptyTestButMountFails)
{
    std::string root = sb_.mkdir("bare");
    auto r = nfs({"--mount"}, {{"root_dir", root}});
    EXPECT_EQ(r.status, 122);
    EXPECT_EQ(sim_->calls("mount").size(), 1u);
    EXPECT_NE(r.err.find("/storage'\" exited with 32\n"), std::string::npos) << r.err;
}

TEST_F(Nfs, MountPointListedTwiceFailsTheOnceTest)
{
    sim_->add_mount("srv:/exp", mnt_, "nfs4");
    sim_->add_mount("srv:/exp", mnt_, "nfs4");
    auto r = nfs({"--mount"});
    EXPECT_EQ(r.status, 122);
    EXPECT_TRUE(logged_error(r.err, not_mounted_once()));
    EXPECT_TRUE(sim_->calls("bundlectl").empty());
}

TEST_F(Nfs, LongerMountPointCountsAsSecondMount)
{
    // The test matches the mount point as a plain substring.
    sim_->add_mount("srv:/exp", mnt_, "nfs4");
    sim_->add_mount("srv:/other", mnt_ + "2", "nfs4");
    auto r = nfs({"--df"});
    EXPECT_EQ(r.status, 122);
    EXPECT_TRUE(logged_error(r.err, not_mounted_once()));
}

struct ParamCase {
    const char *flag;
    const char *source;
    const char *type;
    const char *export_path;
    bool passes;
};

class NfsParameters : public Nfs, public ::testing::WithParamInterface<ParamCase>
{
};

TEST_P(NfsParameters, MountTableLineMustMatch)
{
    const ParamCase &c = GetParam();
    sim_->add_mount(c.source, mnt_, c.type);
    auto r = nfs({"--mount"}, {{"cluster.enable", c.flag}, {"storage.nfs.export", c.export_path}});
    EXPECT_TRUE(sim_->calls("mount").empty());
    if (c.passes) {
        EXPECT_EQ(r.status, 0) << r.err;
        return;
    }
    EXPECT_EQ(r.status, 122);
    std::string pattern = std::string(c.flag) == "yes" ? "nfs4" : "\\(nfs\\|nfs4\\)";
    if (std::string(c.export_path) == "/exp")
        EXPECT_TRUE(logged_error(r.err, "> NFS mount parameters mismatch: \"" +
                                            param_test(pattern) + "\" exited with error 1"));
    else
        EXPECT_NE(r.err.find("> NFS mount parameters mismatch: "), std::string::npos) << r.err;
    EXPECT_TRUE(sim_->calls("bundlectl").empty());
}

INSTANTIATE_TEST_SUITE_P(Cases, NfsParameters,
                         ::testing::Values(ParamCase{"yes", "srv:/exp", "nfs4", "/exp", true},
                                           ParamCase{"yes", "srv:/exp", "nfs", "/exp", false},
                                           ParamCase{"no", "srv:/exp", "nfs", "/exp", true},
                                           ParamCase{"no", "srv:/exp", "nfs4", "/exp", true},
                                           ParamCase{"no", "srv:/exp", "ext4", "/exp", false},
                                           ParamCase{"yes", "other:/exp", "nfs4", "/exp", false},
                                           ParamCase{"yes", "srv:/exp2", "nfs4", "/exp", false},
                                           ParamCase{"yes", "srv:/exp", "nfs4", "exp", true},
                                           ParamCase{"yes", "srv:/exp", "nfs4", "/ex", false}));

TEST_F(Nfs, FailedTestArchiveStaysBehindAndMountStays)
{
    sim_->fail("bundlectl", 3);
    auto r = nfs({"--mount"});
    EXPECT_EQ(r.status, 122);
    std::string command = "TEST_ARCH='" + mnt_ +
                          "/test.kpax'; /bin/rm -f \"$TEST_ARCH\" && /usr/bin/bundlectl -f "
                          "\"$TEST_ARCH\" -C full -F && /bin/rm -f \"$TEST_ARCH\"";
    EXPECT_TRUE(logged_error(r.err, "> cannot create a test archive in \"$root_dir/storage\": \"" +
                                        command + "\" exited with error 3"));
    EXPECT_TRUE(sb_.exists("r/storage/test.kpax"));
    EXPECT_EQ(sim_->calls("mount").size(), 1u);
    EXPECT_NE(sim_->mount_table(), "");
}

TEST_F(Nfs, UmountRemovesTheMount)
{
    sim_->add_mount("srv:/exp", mnt_, "nfs4");
    sim_->add_mount("srv:/exp", mnt_ + "2", "nfs4");
    // Neither host nor export is needed to unmount.
    auto r =
        nfs({"--umount"}, {{"storage.nfs.host", "<unset>"}, {"storage.nfs.export", "<unset>"}});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(sim_->calls("umount"), std::vector<std::string>{mnt_});
    EXPECT_EQ(sim_->mount_table(), "srv:/exp " + mnt_ + "2 nfs4 rw,relatime 0 0\n");
}

TEST_F(Nfs, UmountWithNothingMountedDoesNothing)
{
    auto r = nfs({"--umount"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(sim_->calls("umount").empty());
    EXPECT_EQ(r.err, "");
}

TEST_F(Nfs, UmountDoesNotCheckTheAlphabet)
{
    auto r = nfs({"--umount"}, {{"root_dir", root_ + "/a b"}});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(sim_->calls("umount").empty());
}

TEST_F(Nfs, UmountThenLeftoverArgument)
{
    sim_->add_mount("srv:/exp", mnt_, "nfs4");
    auto r = nfs({"--umount", "extra"});
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.err, std::string("Can't parse 'extra' as an argument.\n") + kUsage);
    EXPECT_EQ(sim_->calls("umount").size(), 1u);
    EXPECT_EQ(sim_->mount_table(), "");
}

TEST_F(Nfs, UmountFailureIsReported)
{
    sim_->add_mount("srv:/exp", mnt_, "nfs4");
    sim_->fail("umount", 32);
    auto r = nfs({"--umount"});
    EXPECT_EQ(r.status, 122);
    EXPECT_TRUE(logged_error(r.err, "> \"/bin/umount '" + mnt_ + "'\" exited with 32"));
}

TEST_F(Nfs, DfReportsTheVolume)
{
    sim_->add_mount("srv:/exp", mnt_, "nfs4");
    auto r = nfs({"--df"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(sim_->calls("df"), std::vector<std::string>{mnt_});
    EXPECT_EQ(r.out.rfind("Filesystem", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("srv:/exp"), std::string::npos) << r.out;
    EXPECT_TRUE(sim_->calls("mount").empty());
}

TEST_F(Nfs, DfWithoutMountDoesNotRunDf)
{
    auto r = nfs({"--df"});
    EXPECT_EQ(r.status, 122);
    EXPECT_TRUE(logged_error(r.err, not_mounted_once()));
    EXPECT_TRUE(sim_->calls("df").empty());
}

TEST_F(Nfs, DfFailureIsReported)
{
    sim_->add_mount("srv:/exp", mnt_, "nfs4");
    sim_->fail("df", 1);
    auto r = nfs({"--df"});
    EXPECT_EQ(r.status, 122);
    EXPECT_TRUE(logged_error(r.err, "> \"/bin/df '" + mnt_ + "'\" exited with error 1"));
}

TEST_F(Nfs, DfThenLeftoverArgument)
{
    sim_->add_mount("srv:/exp", mnt_, "nfs4");
    auto r = nfs({"--df", "--mount"});
    EXPECT_EQ(r.status, 255);
    EXPECT_NE(r.out.find("srv:/exp"), std::string::npos);
    EXPECT_EQ(r.err, std::string("Can't parse '--mount' as an argument.\n") + kUsage);
}

TEST_F(Nfs, ExpandedRootDir)
{
    sim_->add_mount("srv:/exp", mnt_, "nfs4");
    auto r = nfs({"--df"}, {{"base", sb_.dir()}, {"root_dir", "${base}/r"}});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(sim_->calls("df"), std::vector<std::string>{mnt_});
}

// Configuration refusals: each action, the changed keys, the message.
struct RefusalCase {
    const char *action;
    Config changes;
    const char *message;
};

class NfsRefusal : public Nfs, public ::testing::WithParamInterface<RefusalCase>
{
};

TEST_P(NfsRefusal, EndsWithStatus122BeforeAnyCommand)
{
    sim_->add_mount("srv:/exp", mnt_, "nfs4");
    auto r = nfs({GetParam().action}, GetParam().changes);
    EXPECT_EQ(r.status, 122);
    EXPECT_TRUE(logged_error(r.err, GetParam().message));
    for (const char *program : {"mount", "umount", "df", "bundlectl"})
        EXPECT_TRUE(sim_->calls(program).empty()) << program;
}

const char kTypeMissing[] =
    "> failed to find a line 'storage.type = nfs' in the config: -8 (not found)";
const char kTypeWrong[] =
    "> failed to find a line 'storage.type = nfs' in the config: -29 (malformed data)";
const char kRootMissing[] =
    "> failed to find a line 'root_dir = </absolute/path>' in the config: -8 (not found)";
const char kHostMissing[] =
    "> failed to find a line 'storage.nfs.host = <host>' in the config: -8 (not found)";
const char kExportMissing[] =
    "> failed to find a line 'storage.nfs.export = <export>' in the config: -8 (not found)";
const char kFlagMissing[] = "> Failed to find a line 'cluster.enable = (1|y|yes|0|n|no)' in the "
                            "config: -8 (not found)";
const char kRootAlphabet[] = "> invalid 'root_dir' config parameter: -30 (invalid argument); it "
                             "should contain only chars from an alphabet [a-zA-Z0-9./_-]";
const char kHostAlphabet[] = "> invalid 'storage.nfs.host' config parameter: -30 (invalid "
                             "argument); it should contain only chars from an alphabet "
                             "[a-zA-Z0-9./_-]";
const char kExportAlphabet[] = "> invalid 'storage.nfs.export' config parameter: -30 (invalid "
                               "argument); it should contain only chars from an alphabet "
                               "[a-zA-Z0-9./_-]";
const char kRootQuote[] = "> invalid 'root_dir' config parameter: -30 (invalid argument); it "
                          "should not contain a single quote";

INSTANTIATE_TEST_SUITE_P(
    Config, NfsRefusal,
    ::testing::Values(
        RefusalCase{"--mount", {{"storage.type", "<unset>"}}, kTypeMissing},
        RefusalCase{"--umount", {{"storage.type", "<unset>"}}, kTypeMissing},
        RefusalCase{"--df", {{"storage.type", "local"}}, kTypeWrong},
        RefusalCase{"--umount", {{"storage.type", "NFS"}}, kTypeWrong},
        RefusalCase{"--mount", {{"storage.type", "nfs "}, {"root_dir", "<unset>"}}, kRootMissing},
        RefusalCase{"--umount", {{"root_dir", "<unset>"}}, kRootMissing},
        RefusalCase{"--df", {{"storage.nfs.host", "<unset>"}}, kHostMissing},
        RefusalCase{"--mount", {{"storage.nfs.export", "<unset>"}}, kExportMissing},
        RefusalCase{"--mount", {{"cluster.enable", "<unset>"}}, kFlagMissing},
        RefusalCase{"--df", {{"cluster.enable", "<unset>"}}, kFlagMissing},
        RefusalCase{"--mount", {{"root_dir", "/tmp/a b"}}, kRootAlphabet},
        RefusalCase{"--df", {{"root_dir", "/tmp/a'b"}}, kRootAlphabet},
        RefusalCase{"--df", {{"root_dir", "/tmp/a';touch x;'"}}, kRootAlphabet},
        RefusalCase{"--umount", {{"root_dir", "/tmp/a';touch x;'"}}, kRootQuote},
        RefusalCase{"--umount", {{"root_dir", "/tmp/a'"}}, kRootQuote},
        RefusalCase{"--mount", {{"storage.nfs.host", "srv;x"}}, kHostAlphabet},
        RefusalCase{"--df", {{"storage.nfs.export", "/e x"}}, kExportAlphabet},
        RefusalCase{"--mount", {{"storage.nfs.export", "/e'x"}}, kExportAlphabet}));

TEST_F(Nfs, EmptyExportPassesTheAlphabet)
{
    auto r = nfs({"--mount"}, {{"storage.nfs.export", ""}});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(sim_->calls("mount"),
              std::vector<std::string>{"-t nfs4 -o " + std::string(kOptions) +
                                       ",local_lock=none,proto=tcp srv: " + mnt_});
}

TEST_F(Nfs, AbbreviatedOptionAndLeftoverAfterMount)
{
    auto r = nfs({"--mo", "--df"});
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.err, std::string("Can't parse '--df' as an argument.\n") + kUsage);
    EXPECT_EQ(sim_->calls("mount").size(), 1u);
    EXPECT_TRUE(sim_->calls("df").empty());
}

// Option errors need no namespace: nothing runs.
struct OptionCase {
    std::vector<std::string> args;
    std::string message;
};

class NfsOptions : public ::testing::TestWithParam<OptionCase>
{
};

TEST_P(NfsOptions, PrintUsageAndExit255)
{
    Sandbox sb;
    std::string cfg = sb.write_config("tarn.config", {{"storage.type", "local"}});
    std::vector<std::string> argv = {"-c", cfg, "nfs"};
    argv.insert(argv.end(), GetParam().args.begin(), GetParam().args.end());
    auto r = run_tool(argv);
    EXPECT_EQ(r.status, 255);
    EXPECT_EQ(r.err, GetParam().message + kUsage);
    EXPECT_EQ(r.out, "");
}

INSTANTIATE_TEST_SUITE_P(Errors, NfsOptions,
                         ::testing::Values(OptionCase{{}, "Option is expected.\n"},
                                           OptionCase{{"mount"}, "Option is expected.\n"},
                                           OptionCase{{"--"}, "Option is expected.\n"},
                                           OptionCase{{"--bogus"}, "Unknown option '--bogus'.\n"},
                                           OptionCase{{"-x", "--mount"}, "Unknown option '-x'.\n"},
                                           OptionCase{{"--mount=now"},
                                                      "Unknown option '--mount=now'.\n"},
                                           OptionCase{{"-h"}, ""}, OptionCase{{"--help"}, ""},
                                           OptionCase{{"--he", "--mount"}, ""}));

} // namespace
