#include "pull_test_util.h"

#include <algorithm>
#include <filesystem>

namespace pull_test
{

const char kUsage[] = "Account and DC migration tool.\n"
                      "Common options:\n"
                      "  --src                       source DC address\n"
                      "  --dst                       destination DC address\n"
                      "  --src-jwt|--src-cert        JWT or file with certificate to use when\n"
                      "                              connecting to source storage\n"
                      "  --dst-jwt|--dst-cert        JWT or file with certificate to use when\n"
                      "                              connecting to destination storage\n"
                      "  --rm-when-done              remove source files after migration\n"
                      "  --merge-replace             merge into (possibly) existing account,\n"
                      "                              replace existing files on name conflicts\n"
                      "  --src-dc-uid <id>           source DC id; if present, the specified\n"
                      "                              JWT or certificate will be\n"
                      "                              used only to configure trust relationship\n"
                      "                              between DCs\n"
                      "Pull commands:\n"
                      "  --pull-account <name>       pull an account <name> from a source DC\n"
                      "      --rename-to <new-name>  rename an account to <new-name>\n"
                      "  --pull-all-accounts         pull all account from a source DC\n"
                      "  --disable-ondemand-only <account-name>\n"
                      "                              allow TARN crawler to pull an account\n"
                      "  --enable-ondemand-only <account-name>\n"
                      "                              disallow TARN crawler to pull an account\n"
                      "Other options:\n"
                      "  -h                          print this message\n";

PullEnv::PullEnv(const std::vector<std::string> &dst_extra)
    : src("dc-src"), dst("dc-dst", dst_extra), config(sb.path("tarn.config")),
      root(sb.mkdir("root"))
{
    sb.mkdir("root/var");
    sb.mkdir("root/var/files");
    // The local gateway's own certificate, trusted by both simulators.
    sb.write_file("certs/tarn.pem", tarn_test::read_file(cert("web-ec.pem")));
    configure({});
}

void PullEnv::configure(const std::vector<std::pair<std::string, std::string>> &pairs) const
{
    std::vector<std::pair<std::string, std::string>> all = {
        {"root_dir", root}, {"tarn.private_addr", dst.addr()}, {"certs.dir", sb.path("certs")}};
    for (const auto &[key, value] : pairs) {
        auto it = std::find_if(all.begin(), all.end(), [&](auto &p) { return p.first == key; });
        if (it == all.end())
            all.emplace_back(key, value);
        else if (value.empty())
            all.erase(it);
        else
            it->second = value;
    }
    sb.write_config("tarn.config", all);
}

tarn_test::RunResult PullEnv::pull(const std::vector<std::string> &args, int level) const
{
    std::vector<std::string> argv = {"-c", config};
    if (level >= 0)
        argv.insert(argv.end(), {"-d", std::to_string(level)});
    argv.push_back("pull");
    argv.insert(argv.end(), args.begin(), args.end());
    tarn_test::RunOptions o;
    o.env = {"SSL_CERT_FILE=" + cert("ca.pem")};
    o.timeout_ms = timeout_ms;
    return tarn_test::run_tool(argv, o);
}

std::string PullEnv::acc(const std::string &account, const std::string &file) const
{
    return root + "/var/files/" + account + "/" + file;
}

std::vector<std::string> PullEnv::files(const std::string &account) const
{
    std::vector<std::string> out;
    std::error_code ec;
    for (const auto &e : std::filesystem::directory_iterator(acc(account), ec))
        out.push_back(e.path().filename().string());
    std::sort(out.begin(), out.end());
    return out;
}

} // namespace pull_test
