// The bash completion script, sourced into a real bash and asked for the
// completions of partial command lines.
#include "sandbox.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <sstream>

namespace
{

// Sets COMP_WORDS to the arguments after the script's path, the cursor on
// the last one, and prints COMPREPLY one entry a line.
const char kDriver[] = "source \"$1\" || exit 3; shift;"
                       "COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1));"
                       "_quillon_tarn_ctl; printf '%s\\n' \"${COMPREPLY[@]}\"";

std::string complete(const tarn_test::Sandbox &sb, const std::vector<std::string> &words)
{
    std::vector<std::string> argv = {"bash",  "--norc", "--noprofile",          "-c",
                                     kDriver, "bash",   TARN_COMPLETION_SCRIPT, "quillon-tarn-ctl"};
    argv.insert(argv.end(), words.begin(), words.end());
    tarn_test::RunOptions opts;
    opts.cwd = sb.dir();
    opts.timeout_ms = 10000;
    auto r = tarn_test::run(argv, opts);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    std::vector<std::string> got;
    std::istringstream in(r.out);
    for (std::string line; std::getline(in, line);)
        if (!line.empty())
            got.push_back(line);
    std::sort(got.begin(), got.end());
    std::string joined;
    for (const auto &g : got)
        joined += (joined.empty() ? "" : " ") + g;
    return joined;
}

TEST(Completion, PartialCommandLines)
{
    tarn_test::Sandbox sb;
    sb.write_file("a.pem", "");
    sb.write_file("b.conf", "");
    struct Row {
        std::vector<std::string> words; // after the program name; the last is the cursor's
        std::string want;               // sorted, blank-separated
    } rows[] = {
        {{""}, "enable-logmanager init-dirs nfs pull replication set-attr upgrade-dirs"},
        {{"-"}, "--config --debug-level --help -c -d -h"},
        {{"-c", ""}, "a.pem b.conf"},
        {{"--config", "=", "a"}, "a.pem"},
        {{"--config=b"}, "--config=b.conf"},
        {{"-d", ""}, ""},
        {{"-c", "x", "-d", "2", "re"}, "replication"},
        {{"--config", "=", "x", "pull", "--src-c"}, "--src-cert"},
        {{"pull", "--src", ""}, ""},
        {{"pull", "--pull-account", "--"}, ""},
        {{"pull", "--dst-cert", ""}, "a.pem b.conf"},
        {{"pull", "--rm"}, "--rm-when-done"},
        {{"nfs", "--"}, "--df --help --mount --umount"},
        {{"replication", "--slave-cert", "a"}, "a.pem"},
        {{"replication", "--master-u"}, "--master-uid"},
        {{"replication", "--slave-addr", "b", "--ch"}, "--check-consistency"},
        {{"init-dirs", "enc"}, "encoding="},
        {{"upgrade-dirs", ""}, ""},
        {{"enable-logmanager", "-"}, ""},
    };
    for (const Row &row : rows) {
        std::string line;
        for (const auto &w : row.words)
            line += " '" + w + "'";
        EXPECT_EQ(complete(sb, row.words), row.want) << "completing" << line;
    }
}

} // namespace
