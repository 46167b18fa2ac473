// The argument grammar of init-dirs, set-attr and upgrade-dirs, run through
// the real tool: refusals by their message and status, accepted command
// lines by what the tool asks the cluster tool to set on the root.
#include "dirs_fixture.h"

#include <sstream>

namespace
{

using tarn_test::DirsTest;

const char kInitUsage[] = "Create and prepare directories for use by TARN.\n"
                          "SYNOPSIS: init-dirs encoding=M+N[/X] [ATTR=A]...\n"
                          "See `quillon` for possible ATTR values.\n";
const char kSetUsage[] = "Change storage format of backup archives.\n"
                         "SYNOPSIS: set-attr [encoding=M+N[/X]] [ATTR=A]...\n"
                         "See `quillon` for possible ATTR values.\n";
const char kUpgradeUsage[] = "Create and prepare missing directories after TARN update.\n"
                             "SYNOPSIS: upgrade-dirs\n";

// A command line and its outcome: the configuration's storage type ("" leaves
// the key out) and root ("-" leaves root_dir out, "" the sandbox root), the
// words (blank-separated), the status, standard error (the whole of it for
// 255, a part of it otherwise), and the stand-in's invocations on the root,
// "R" standing for its path, separated by "|".
struct GrammarCase {
    const char *name;
    const char *storage_type;
    const char *root;
    const char *args;
    int status;
    std::string err;
    std::string on_root;
};

const std::string kBad = "' is not a valid encoding specification; the format must be "
                         "'encoding=M+N/X' or 'encoding=M+N'";
const std::string kDefaults = "|-A -q set-attr R chunk-size=2147483648|-A -q set-attr R "
                              "failure-domain=host";
const char kNoType[] = "failed to find a line 'storage.type = <type>' in TARN config file: -8 (";
const char kNoRoot[] = "TARN config file does not define $root_dir.\n";
const char kNfsEncoding[] = "storage.type=nfs requires encoding=1+0";
const char kNfsOptions[] =
    "chunk-size= and failure-domain= options are not supported for storage.type=nfs";

const GrammarCase kCases[] = {
    {"init_usage", "local", "", "init-dirs", 255, kInitUsage, ""},
    {"set_usage", "local", "", "set-attr", 255, kSetUsage, ""},
    {"upgrade_usage", "local", "", "upgrade-dirs x", 255, kUpgradeUsage, ""},
    {"init_full_encoding", "local", "", "init-dirs encoding=5+2/3", 0, "",
     "-q set-attr R encoding=5+2/3" + kDefaults},
    {"init_user_attrs_before_defaults", "s3", "",
     "init-dirs encoding=5+2 tier=1 failure-domain=disk", 0, "",
     "-q set-attr R encoding=5+2|-A -q set-attr R tier=1|-A -q set-attr R failure-domain=disk|-A "
     "-q "
     "set-attr R chunk-size=2147483648"},
    {"init_hex_and_octal", "azure", "", "init-dirs encoding=0x3+02 chunk-size=1048576", 0, "",
     "-q set-attr R encoding=3+2|-A -q set-attr R chunk-size=1048576|-A -q set-attr R "
     "failure-domain=host"},
    {"init_last_encoding_wins", "google", "", "init-dirs encoding=3+2 encoding=4+1/1", 0, "",
     "-q set-attr R encoding=4+1/1" + kDefaults},
    {"init_chunk_size_prefix", "swift", "", "init-dirs chunk-sizes=5 encoding=2+1", 0, "",
     "-q set-attr R encoding=2+1|-A -q set-attr R chunk-sizes=5|-A -q set-attr R "
     "failure-domain=host"},
    {"init_negative_n", "local", "", "init-dirs encoding=3+-1/2", 1, "'encoding=3+-1/2" + kBad, ""},
    {"init_negative_m", "local", "", "init-dirs encoding=-1+2", 1, "'encoding=-1+2" + kBad, ""},
    {"init_no_encoding", "local", "", "init-dirs tier=1", 1, "encoding= is a required parameter",
     ""},
    {"init_nfs", "nfs", "", "init-dirs encoding=1+0", 0, "",
     "-q set-attr R encoding=1+0" + kDefaults},
    {"init_nfs_zero_x", "nfs", "", "init-dirs tier=2 encoding=1+0/0", 0, "",
     "-q set-attr R encoding=1+0/0|-A -q set-attr R tier=2" + kDefaults},
    {"init_nfs_x", "nfs", "", "init-dirs encoding=1+0/1", 1, kNfsEncoding, ""},
    {"init_nfs_m", "nfs", "", "init-dirs encoding=2+0", 1, kNfsEncoding, ""},
    {"init_nfs_chunk_size", "nfs", "", "init-dirs encoding=1+0 chunk-size=1048576", 1, kNfsOptions,
     ""},
    {"init_nfs_failure_domain", "nfs", "", "init-dirs failure-domain=disk encoding=1+0", 1,
     kNfsOptions, ""},
    {"init_unknown_type", "ceph", "", "init-dirs encoding=2+1", 1,
     "unsupported storage.type=ceph in TARN config file", ""},
    {"init_encoding_checked_first", "ceph", "", "init-dirs encoding=x", 1, "'encoding=x" + kBad,
     ""},
    {"init_no_storage_type", "", "", "init-dirs encoding=1+0", 1, kNoType, ""},
    {"init_no_root", "local", "-", "init-dirs encoding=1+0", 1, kNoRoot, ""},
    {"set_attrs_only", "swift", "", "set-attr tier=3", 0, "", "-A -q set-attr R tier=3"},
    {"set_encoding", "local", "", "set-attr encoding=4+1/1 tier=0", 0, "",
     "-q set-attr R encoding=4+1/1|-A -q set-attr R tier=0"},
    {"set_nfs", "nfs", "", "set-attr tier=3", 1, "set-attr is not supported for storage.type=nfs",
     ""},
    {"set_unknown_type", "ceph", "", "set-attr tier=3", 1,
     "set-attr is not supported for storage.type=ceph", ""},
    {"set_no_storage_type", "", "", "set-attr tier=3", 1, kNoType, ""},
    {"set_type_before_root", "nfs", "-", "set-attr tier=3", 1,
     "set-attr is not supported for storage.type=nfs", ""},
    {"set_no_root", "local", "-", "set-attr tier=3", 1, kNoRoot, ""},
    {"set_bad_encoding", "local", "", "set-attr encoding=4", 1, "'encoding=4" + kBad, ""},
    {"upgrade_no_root", "ceph", "-", "upgrade-dirs", 1,
     "failed: TARN config file does not define $root_dir\n", ""},
};

std::vector<std::string> split(const std::string &s, char sep)
{
    std::vector<std::string> out;
    std::istringstream in(s);
    for (std::string item; std::getline(in, item, sep);)
        out.push_back(item);
    return out;
}

// Keeps the test names that CTest shows short.
void PrintTo(const GrammarCase &c, std::ostream *os)
{
    *os << c.name;
}

class Grammar : public DirsTest, public ::testing::WithParamInterface<GrammarCase>
{
};

TEST_P(Grammar, RefusesOrSetsTheRootAttributes)
{
    const GrammarCase &c = GetParam();
    configure(c.storage_type, c.root);
    for (const char *d : tarn_test::kTreeDirs)
        sb_.mkdir("r/" + std::string(d));
    auto r = run_ctl(split(c.args, ' '));
    ASSERT_EQ(r.status, c.status) << r.err;
    if (c.status == 255)
        EXPECT_EQ(r.err, c.err);
    else
        EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
    std::vector<std::string> on_root;
    for (const std::string &line : take_log()) {
        auto at = line.find(" " + root_ + " ");
        if (at != std::string::npos)
            on_root.push_back(line.substr(0, at) + " R " + line.substr(at + root_.size() + 2));
    }
    EXPECT_EQ(on_root, c.on_root.empty() ? std::vector<std::string>{} : split(c.on_root, '|'));
}

INSTANTIATE_TEST_SUITE_P(DirCommands, Grammar, ::testing::ValuesIn(kCases),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace
