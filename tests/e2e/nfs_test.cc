// The nfs command against a simulated NFS volume: stand-ins for mount,
// umount, df, the archive tool and the mount table reader, bound over the
// system paths in a private mount namespace (tests/support/nfs_harness.h).
#include "nfs_harness.h"
#include "sandbox.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

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

// In the texts below "@M" stands for the mount point, "@O" for the fixed
// mount options, "@R" for the root and "@S" for the sandbox.
const char kOptions[] = "hard,timeo=20,retrans=4,fg,retry=0";
const char kOnce[] = "> $root_dir/storage is not mounted, or mounted multiple times: \"/bin/cat "
                     "/proc/mounts | /bin/grep -F '@M' | /usr/bin/wc -l | /bin/grep '^1$' "
                     ">/dev/null\" exited with error 1";
const char kMismatch[] = "> NFS mount parameters mismatch: \"/bin/cat /proc/mounts | /bin/grep "
                         "'^srv:/\\?/exp @M ";
const char kTypeMissing[] =
    "> failed to find a line 'storage.type = nfs' in the config: -8 (not found)";
const char kTypeWrong[] =
    "> failed to find a line 'storage.type = nfs' in the config: -29 (malformed data)";
const char kRootMissing[] =
    "> failed to find a line 'root_dir = </absolute/path>' in the config: -8 (not found)";
const char kFlagMissing[] = "> Failed to find a line 'cluster.enable = (1|y|yes|0|n|no)' in the "
                            "config: -8 (not found)";
const char kAlphabet[] = "' config parameter: -30 (invalid argument); it should contain only "
                         "chars from an alphabet [a-zA-Z0-9./_-]";
const char kRootQuote[] = "> invalid 'root_dir' config parameter: -30 (invalid argument); it "
                          "should not contain a single quote";

std::string alphabet(const std::string &key)
{
    return "> invalid '" + key + kAlphabet;
}

std::string missing(const std::string &key, const std::string &form)
{
    return "> failed to find a line '" + key + " = " + form + "' in the config: -8 (not found)";
}

// True when `err` holds `message` as a whole error-level log line, or, when
// `message` ends with "...", as the start of one.
::testing::AssertionResult logged_error(const std::string &err, std::string message)
{
    bool prefix = message.size() > 3 && message.compare(message.size() - 3, 3, "...") == 0;
    message = prefix ? message.substr(0, message.size() - 3) : message + "\n";
    size_t at = err.find(message);
    if (at != std::string::npos) {
        size_t start = at == 0 ? std::string::npos : err.rfind('\n', at - 1);
        start = start == std::string::npos ? 0 : start + 1;
        if (err.substr(start, at - start).find(" E ") != std::string::npos)
            return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "no error line \"" << message << "\" in:\n" << err;
}

// One run of the command; lists are separated by "|". Before it: "changes"
// to the configuration ("KEY=VALUE", "KEY=<unset>"), and "setup" steps:
// "mount SOURCE TYPE [SUFFIX]" (a mount table line at the mount point, with
// SUFFIX appended), "file REL" (in the sandbox), "fail PROGRAM CODE". After
// it: the status, then `err`: the error line (122; a trailing "..." makes it
// a prefix), the whole standard error before the usage (255), or "<none>"
// for an empty one; and `expect`: every stand-in's calls ("PROGRAM ARGS"),
// "out TEXT" (a part of standard output, which is otherwise empty), "table
// TEXT" (the whole mount table), "+REL"/"-REL" (files that must or must not
// exist).
struct Scenario {
    const char *name;
    const char *args;
    std::string changes;
    std::string setup;
    int status;
    std::string err;
    std::string expect;
};

const std::string kMounted = "mount srv:/exp nfs4";
const std::string kMountCall = "mount -t nfs4 -o @O,local_lock=none,proto=tcp srv:/exp @M";
const std::string kArchiveCall = "bundlectl -f @M/test.kpax -C full -F";
const std::string kMountedLine =
    "table srv:/exp @M nfs4 rw,relatime,@O,local_lock=none,proto=tcp 0 0";

const Scenario kScenarios[] = {
    {"mount_when_mounted", "--mount", "", kMounted + "|file r/storage/backup.kpax", 0, "",
     kArchiveCall + "|+r/storage/backup.kpax"},
    {"mount_point_not_empty", "--mount", "", "file r/storage/stray", 122,
     "> failed while checking that mount point is empty; '/usr/bin/test -z \"$(/bin/ls -A "
     "'@M')\"' exited with 1",
     ""},
    {"mount_fails", "--mount", "cluster.enable=no", "fail mount 32", 122,
     "> \"/bin/mount -t nfs -o @O,local_lock=all,proto=tcp 'srv:/exp' '@M'\" exited with 32",
     "mount -t nfs -o @O,local_lock=all,proto=tcp srv:/exp @M"},
    {"missing_mount_point", "--mount", "root_dir=@S/bare", "", 122,
     "> \"/bin/mount -t nfs4 -o @O,local_lock=none,proto=tcp 'srv:/exp' '@S/bare/storage'\" "
     "exited with 32",
     "mount -t nfs4 -o @O,local_lock=none,proto=tcp srv:/exp @S/bare/storage"},
    {"listed_twice", "--mount", "", kMounted + "|" + kMounted, 122, kOnce, ""},
    // The test matches the mount point as a plain substring.
    {"longer_mount_point", "--df", "", kMounted + "|mount srv:/other nfs4 2", 122, kOnce, ""},
    {"archive_fails", "--mount", "", "fail bundlectl 3", 122,
     "> cannot create a test archive in \"$root_dir/storage\": \"TEST_ARCH='@M/test.kpax'; "
     "/bin/rm -f \"$TEST_ARCH\" && /usr/bin/bundlectl -f \"$TEST_ARCH\" -C full -F && /bin/rm -f "
     "\"$TEST_ARCH\"\" exited with error 3",
     kMountCall + "|" + kArchiveCall + "|" + kMountedLine + "|+r/storage/test.kpax"},
    // Neither host nor export is needed to unmount.
    {"umount", "--umount", "storage.nfs.host=<unset>|storage.nfs.export=<unset>",
     kMounted + "|mount srv:/exp nfs4 2", 0, "",
     "umount @M|table srv:/exp @M2 nfs4 rw,relatime 0 0"},
    {"umount_nothing_mounted", "--umount", "", "", 0, "<none>", "table "},
    {"umount_skips_alphabet", "--umount", "root_dir=@R/a b", "", 0, "", ""},
    {"umount_then_leftover", "--umount extra", "", kMounted, 255,
     "Can't parse 'extra' as an argument.\n", "umount @M|table "},
    {"umount_fails", "--umount", "", kMounted + "|fail umount 32", 122,
     "> \"/bin/umount '@M'\" exited with 32", "umount @M"},
    {"df", "--df", "", kMounted, 0, "", "df @M|out Filesystem"},
    {"df_not_mounted", "--df", "", "", 122, kOnce, ""},
    {"df_fails", "--df", "", kMounted + "|fail df 1", 122, "> \"/bin/df '@M'\" exited with error 1",
     "df @M"},
    {"df_then_leftover", "--df --mount", "", kMounted, 255,
     "Can't parse '--mount' as an argument.\n", "df @M|out srv:/exp"},
    {"expanded_root", "--df", "base=@S|root_dir=${base}/r", kMounted, 0, "", "df @M|out srv:/exp"},
    {"empty_export", "--mount", "storage.nfs.export=", "", 0, "",
     "mount -t nfs4 -o @O,local_lock=none,proto=tcp srv: @M|" + kArchiveCall},
    {"abbreviated_then_leftover", "--mo --df", "", "", 255, "Can't parse '--df' as an argument.\n",
     kMountCall + "|" + kArchiveCall},
    // The mount table line must match host, export and type.
    {"params_v4", "--mount", "", kMounted, 0, "", kArchiveCall},
    {"params_v4_wants_nfs4", "--mount", "", "mount srv:/exp nfs", 122,
     kMismatch + std::string("nfs4 ' >/dev/null\" exited with error 1"), ""},
    {"params_v3_nfs", "--mount", "cluster.enable=no", "mount srv:/exp nfs", 0, "", kArchiveCall},
    {"params_v3_nfs4", "--mount", "cluster.enable=no", kMounted, 0, "", kArchiveCall},
    {"params_v3_ext4", "--mount", "cluster.enable=no", "mount srv:/exp ext4", 122,
     kMismatch + std::string("\\(nfs\\|nfs4\\) ' >/dev/null\" exited with error 1"), ""},
    {"params_other_host", "--mount", "", "mount other:/exp nfs4", 122,
     kMismatch + std::string("nfs4 ' >/dev/null\" exited with error 1"), ""},
    {"params_longer_export", "--mount", "", "mount srv:/exp2 nfs4", 122,
     kMismatch + std::string("nfs4 ' >/dev/null\" exited with error 1"), ""},
    {"params_relative_export", "--mount", "storage.nfs.export=exp", kMounted, 0, "", kArchiveCall},
    {"params_shorter_export", "--mount", "storage.nfs.export=/ex", kMounted, 122,
     "> NFS mount parameters mismatch: ...", ""},
    {"params_name_characters", "--mount", "storage.nfs.host=nfs-1.a_b|storage.nfs.export=/e_x-1.2",
     "mount nfs-1.a_b:/e_x-1.2 nfs4", 0, "", kArchiveCall},
    // Configuration refusals come before any program runs.
    {"no_type_mount", "--mount", "storage.type=<unset>", kMounted, 122, kTypeMissing, ""},
    {"no_type_umount", "--umount", "storage.type=<unset>", kMounted, 122, kTypeMissing, ""},
    {"type_local", "--df", "storage.type=local", kMounted, 122, kTypeWrong, ""},
    {"type_upper", "--umount", "storage.type=NFS", kMounted, 122, kTypeWrong, ""},
    {"no_root_mount", "--mount", "storage.type=nfs |root_dir=<unset>", kMounted, 122, kRootMissing,
     ""},
    {"no_root_umount", "--umount", "root_dir=<unset>", kMounted, 122, kRootMissing, ""},
    {"no_host", "--df", "storage.nfs.host=<unset>", kMounted, 122,
     missing("storage.nfs.host", "<host>"), ""},
    {"no_export", "--mount", "storage.nfs.export=<unset>", kMounted, 122,
     missing("storage.nfs.export", "<export>"), ""},
    {"no_flag_mount", "--mount", "cluster.enable=<unset>", kMounted, 122, kFlagMissing, ""},
    {"no_flag_df", "--df", "cluster.enable=<unset>", kMounted, 122, kFlagMissing, ""},
    {"root_blank", "--mount", "root_dir=/tmp/a b", kMounted, 122, alphabet("root_dir"), ""},
    {"root_quote_df", "--df", "root_dir=/tmp/a'b", kMounted, 122, alphabet("root_dir"), ""},
    {"root_command_df", "--df", "root_dir=/tmp/a';touch x;'", kMounted, 122, alphabet("root_dir"),
     ""},
    {"root_command_umount", "--umount", "root_dir=/tmp/a';touch x;'", kMounted, 122, kRootQuote,
     ""},
    {"root_quote_umount", "--umount", "root_dir=/tmp/a'", kMounted, 122, kRootQuote, ""},
    {"host_semicolon", "--mount", "storage.nfs.host=srv;x", kMounted, 122,
     alphabet("storage.nfs.host"), ""},
    {"export_blank", "--df", "storage.nfs.export=/e x", kMounted, 122,
     alphabet("storage.nfs.export"), ""},
    {"export_quote", "--mount", "storage.nfs.export=/e'x", kMounted, 122,
     alphabet("storage.nfs.export"), ""},
};

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

    std::string expand(std::string s) const
    {
        for (auto [mark, value] : {std::pair<std::string, std::string>{"@M", mnt_},
                                   {"@O", kOptions},
                                   {"@R", root_},
                                   {"@S", sb_.dir()}}) {
            for (size_t at = 0; (at = s.find(mark, at)) != std::string::npos; at += value.size())
                s.replace(at, mark.size(), value);
        }
        return s;
    }

    // The default configuration with `changes` applied: a pair replaces the
    // key's value, or removes the key when the value is "<unset>".
    RunResult nfs(const std::vector<std::string> &args, const std::string &changes = "") const
    {
        Config c = {{"storage.type", "nfs"},
                    {"root_dir", root_},
                    {"storage.nfs.host", "srv"},
                    {"storage.nfs.export", "/exp"},
                    {"cluster.enable", "yes"}};
        for (const std::string &change : split(changes, '|')) {
            std::string key = change.substr(0, change.find('='));
            std::string value = expand(change.substr(key.size() + 1));
            auto it = std::find_if(c.begin(), c.end(), [&](auto &p) { return p.first == key; });
            if (it == c.end())
                c.emplace_back(key, value);
            else if (value == "<unset>")
                c.erase(it);
            else
                it->second = value;
        }
        std::vector<std::string> argv = {"-c", sb_.write_config("tarn.config", c), "nfs"};
        argv.insert(argv.end(), args.begin(), args.end());
        return run_tool(argv, sim_->options());
    }

    void check(const Scenario &s)
    {
        for (const std::string &step : split(s.setup, '|')) {
            auto w = split(step, ' ');
            if (w[0] == "mount")
                sim_->add_mount(w[1], mnt_ + (w.size() > 3 ? w[3] : ""), w[2]);
            else if (w[0] == "file")
                sb_.write_file(w[1], "x");
            else
                sim_->fail(w[1], std::stoi(w[2]));
        }
        auto r = nfs(split(s.args, ' '), s.changes);
        EXPECT_EQ(r.status, s.status) << r.err;
        if (s.status == 255) {
            EXPECT_EQ(r.err, s.err + kUsage);
        } else if (s.status != 0) {
            EXPECT_TRUE(logged_error(r.err, expand(s.err)));
        } else if (s.err == "<none>") {
            EXPECT_EQ(r.err, "");
        }
        std::map<std::string, std::vector<std::string>> calls;
        std::string out;
        for (const std::string &e : split(s.expect, '|')) {
            size_t blank = std::min(e.find(' '), e.size());
            std::string word = e.substr(0, blank),
                        rest = expand(e.substr(std::min(blank + 1, e.size())));
            if (word[0] == '+' || word[0] == '-') {
                EXPECT_EQ(sb_.exists(e.substr(1)), word[0] == '+') << e;
            } else if (word == "table") {
                EXPECT_EQ(sim_->mount_table(), rest.empty() ? "" : rest + "\n");
            } else if (word == "out") {
                out = rest;
            } else {
                calls[word].push_back(rest);
            }
        }
        EXPECT_TRUE(out.empty() ? r.out.empty() : r.out.find(out) != std::string::npos) << r.out;
        for (const char *program : {"mount", "umount", "df", "bundlectl"})
            EXPECT_EQ(sim_->calls(program), calls[program]) << program;
    }

    Sandbox sb_;
    std::optional<NfsSim> sim_;
    std::string root_;
    std::string mnt_;
};

class NfsScenario : public Nfs, public ::testing::WithParamInterface<Scenario>
{
};

TEST_P(NfsScenario, StatusMessageAndCalls)
{
    check(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Runs, NfsScenario, ::testing::ValuesIn(kScenarios),
                         [](const auto &info) { return std::string(info.param.name); });

// cluster.enable picks the version: only "1", "y" and "yes" are true.
struct FlagCase {
    const char *value;
    const char *type;
    const char *lock;
};

class NfsMountVersion : public Nfs, public ::testing::WithParamInterface<FlagCase>
{
};

TEST_P(NfsMountVersion, MountsChecksAndMakesTestArchive)
{
    const FlagCase &c = GetParam();
    std::string options = std::string("@O,local_lock=") + c.lock;
    std::string mount =
        "mount -t " + std::string(c.type) + " -o " + options + ",proto=tcp srv:/exp @M";
    std::string table =
        "table srv:/exp @M " + std::string(c.type) + " rw,relatime," + options + ",proto=tcp 0 0";
    check({c.value, "--mount", std::string("cluster.enable=") + c.value, "", 0, "",
           mount + "|" + kArchiveCall + "|" + table + "|-r/storage/test.kpax"});
}

INSTANTIATE_TEST_SUITE_P(
    ClusterEnable, NfsMountVersion,
    ::testing::Values(FlagCase{"yes", "nfs4", "none"}, FlagCase{"y", "nfs4", "none"},
                      FlagCase{"1", "nfs4", "none"}, FlagCase{"0", "nfs", "all"},
                      FlagCase{"no", "nfs", "all"}, FlagCase{"true", "nfs", "all"},
                      FlagCase{"YES", "nfs", "all"}));

// Option errors need no namespace: nothing runs.
TEST(NfsOptions, PrintUsageAndExit255)
{
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, "Option is expected.\n"},
        {{"mount"}, "Option is expected.\n"},
        {{"--"}, "Option is expected.\n"},
        {{"--bogus"}, "Unknown option '--bogus'.\n"},
        {{"-x", "--mount"}, "Unknown option '-x'.\n"},
        {{"--mount=now"}, "Unknown option '--mount=now'.\n"},
        {{"-h"}, ""},
        {{"--help"}, ""},
        {{"--he", "--mount"}, ""},
    };
    Sandbox sb;
    std::string cfg = sb.write_config("tarn.config", {{"storage.type", "local"}});
    for (const auto &[args, message] : cases) {
        std::vector<std::string> argv = {"-c", cfg, "nfs"};
        argv.insert(argv.end(), args.begin(), args.end());
        auto r = run_tool(argv);
        EXPECT_EQ(r.status, 255) << message;
        EXPECT_EQ(r.err, message + kUsage);
        EXPECT_EQ(r.out, "");
    }
}

} // namespace
