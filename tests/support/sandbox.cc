#include "sandbox.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace tarn_test
{

std::string read_file(const std::string &path)
{
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

RunResult run_tool(const std::vector<std::string> &args, const RunOptions &opts)
{
    std::vector<std::string> argv{tool_path()};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv, opts);
}

std::string tool_path()
{
    return TARN_CTL_PATH;
}

Sandbox::Sandbox()
{
    const char *tmp = getenv("TMPDIR");
    dir_ = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/tarn-test-XXXXXX";
    if (mkdtemp(dir_.data()) == nullptr)
        throw std::runtime_error("mkdtemp failed");
}

Sandbox::~Sandbox()
{
    std::error_code ec;
    fs::remove_all(dir_, ec);
}

std::string Sandbox::write_file(const std::string &rel, const std::string &content,
                                unsigned mode) const
{
    std::string p = path(rel);
    fs::create_directories(fs::path(p).parent_path());
    std::ofstream(p, std::ios::binary | std::ios::trunc) << content;
    chmod(p.c_str(), mode);
    return p;
}

bool Sandbox::exists(const std::string &rel) const
{
    struct stat st;
    return lstat(path(rel).c_str(), &st) == 0;
}

std::string Sandbox::mkdir(const std::string &rel, unsigned mode) const
{
    std::string p = path(rel);
    fs::create_directories(p);
    chmod(p.c_str(), mode);
    return p;
}

std::string
Sandbox::write_config(const std::string &rel,
                      const std::vector<std::pair<std::string, std::string>> &pairs) const
{
    std::string text;
    for (const auto &[k, v] : pairs)
        text += k + " = " + v + "\n";
    return write_file(rel, text);
}

} // namespace tarn_test
