#include "dirs_fixture.h"

#include <cerrno>
#include <sstream>
#include <sys/xattr.h>

namespace tarn_test
{

const char *const kTreeDirs[8] = {"",           "storage/",   "var/",   "var/clients/",
                                  "var/files/", "var/hosts/", "certs/", "conf.d/"};

void DirsTest::SetUp()
{
    // The stand-in keeps attributes in extended attributes.
    if (setxattr(sb_.dir().c_str(), "user.quillon.probe", "1", 1, 0) != 0)
        GTEST_SKIP() << "no user extended attributes in " << sb_.dir() << ": " << strerror(errno);
    removexattr(sb_.dir().c_str(), "user.quillon.probe");
    root_ = sb_.path("r");
    configure("local");
}

void DirsTest::configure(const std::string &storage_type, const std::string &root)
{
    std::vector<std::pair<std::string, std::string>> pairs;
    std::string r = root.empty() ? root_ : root;
    if (r != "-")
        pairs.emplace_back("root_dir", r);
    if (!storage_type.empty())
        pairs.emplace_back("storage.type", storage_type);
    config_ = sb_.write_config("tarn.config", pairs);
}

RunResult DirsTest::run_ctl(const std::vector<std::string> &args, const std::string &fail_glob)
{
    RunOptions o;
    o.path = {QUILLON_SIM_DIR};
    o.env = {"QUILLON_SIM_LOG=" + sb_.path("quillon.log"), "QUILLON_SIM_FAIL=" + fail_glob};
    o.cwd = sb_.dir(); // where a command slipped into a value would leave its traces
    std::vector<std::string> argv = {"-c", config_};
    argv.insert(argv.end(), args.begin(), args.end());
    return run_tool(argv, o);
}

AttrMap DirsTest::attrs_of(const std::string &dir)
{
    RunOptions o;
    o.path = {QUILLON_SIM_DIR};
    RunResult r = run({"quillon", "-A", "-q", "get-attr", dir}, o);
    EXPECT_EQ(r.status, 0) << dir << ": " << r.err;
    AttrMap m;
    std::istringstream in(r.out);
    for (std::string line; std::getline(in, line);) {
        auto eq = line.find('=');
        if (eq != std::string::npos)
            m[line.substr(0, eq)] = line.substr(eq + 1);
    }
    return m;
}

std::vector<std::string> DirsTest::take_log()
{
    std::vector<std::string> lines;
    std::istringstream in(read_file(sb_.path("quillon.log")));
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    sb_.write_file("quillon.log", "");
    return lines;
}

std::string DirsTest::tree_path(const std::string &rel) const
{
    return rel.empty() ? root_ : root_ + "/" + rel;
}

} // namespace tarn_test
