// What an administrator gets: the bash completion sourced into a real bash,
// the manual page against the tool's usage texts, and the Debian package
// built with CPack from this build tree (unpacked, never installed).
#include "sandbox.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <regex>
#include <set>

using tarn_test::run;

namespace fs = std::filesystem;

namespace
{

tarn_test::RunOptions within(int seconds, const std::string &cwd = "")
{
    tarn_test::RunOptions opts;
    opts.timeout_ms = seconds * 1000;
    opts.cwd = cwd;
    return opts;
}

bool installed(const std::string &program)
{
    return run({"sh", "-c", "command -v " + program}).status == 0;
}

TEST(Completion, PartialCommandLines)
{
    tarn_test::Sandbox sb;
    sb.write_file("a.pem", "");
    sb.write_file("b.conf", "");
    // The words after the program name, the last one under the cursor, and
    // the completions, sorted.
    const std::pair<std::vector<std::string>, std::string> rows[] = {
        {{""}, "enable-logmanager init-dirs nfs pull replication set-attr upgrade-dirs"},
        {{"-"}, "--config --debug-level --help -c -d -h"},
        {{"-c", ""}, "a.pem b.conf"},
        {{"--config", "=", "a"}, "a.pem"},
        {{"-c", "x", "-d", "2", "re"}, "replication"},
        {{"--config", "=", "x", "pull", "--src-c"}, "--src-cert"},
        {{"pull", "--dst-cert", ""}, "a.pem b.conf"},
        {{"pull", "--rm"}, "--rm-when-done"},
        {{"nfs", "--"}, "--df --help --mount --umount"},
        {{"replication", "--slave-addr", "b", "--ch"}, "--check-consistency"},
        {{"init-dirs", "enc"}, "encoding="},
        {{"upgrade-dirs", ""}, ""},
    };
    // COMP_WORDS: the arguments after the script's path, the cursor on the
    // last one; COMPREPLY is printed sorted, on one line.
    const char driver[] = "source \"$1\" || exit 3; shift;"
                          "COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _quillon_tarn_ctl;"
                          "printf '%s\\n' \"${COMPREPLY[@]}\" | LC_ALL=C sort | paste -sd ' '";
    for (const auto &[words, want] : rows) {
        std::vector<std::string> argv = {
            "bash", "--norc", "--noprofile",          "-c",
            driver, "bash",   TARN_COMPLETION_SCRIPT, "quillon-tarn-ctl"};
        argv.insert(argv.end(), words.begin(), words.end());
        SCOPED_TRACE(testing::PrintToString(words));
        auto r = run(argv, within(10, sb.dir()));
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.out, want + "\n");
    }
}

// Every option that a usage text shows, and every command, is described;
// mandoc finds nothing to complain of.
TEST(ManPage, DescribesEveryOptionAndLintsClean)
{
    if (!installed("mandoc"))
        GTEST_SKIP() << "mandoc is not installed (scripts/install-deps installs it)";
    auto lint = run({"mandoc", "-T", "lint", "-W", "warning", TARN_MANPAGE});
    EXPECT_EQ(lint.status, 0);
    EXPECT_EQ(lint.out + lint.err, "");
    // The page as a reader sees it, on lines long enough never to break a
    // word, without the overstrikes of bold and underlined text.
    auto shown = run({"mandoc", "-T", "ascii", "-O", "width=1000", TARN_MANPAGE});
    ASSERT_EQ(shown.status, 0) << shown.err;
    std::string page;
    for (char c : shown.out)
        c == '\b' ? page.pop_back() : page.push_back(c);

    tarn_test::Sandbox sb;
    std::string conf =
        sb.write_config("tarn.config", {{"root_dir", sb.dir()}, {"storage.type", "local"}});
    const std::vector<std::vector<std::string>> usages = {
        {"-h"},
        {"-c", conf, "init-dirs"},
        {"-c", conf, "set-attr"},
        {"-c", conf, "upgrade-dirs", "x"},
        {"-c", conf, "nfs", "-h"},
        {"-c", conf, "pull", "-h"},
        {"-c", conf, "replication", "-h"},
    };
    const std::regex option("(?:^|[\\s|,\\[(])(--?[A-Za-z][A-Za-z0-9-]*)");
    const std::regex command("\n  ([a-z][a-z-]+) "); // rows of the frame's "Commands:"
    size_t options = 0;
    for (const auto &args : usages) {
        auto r = tarn_test::run_tool(args);
        ASSERT_EQ(r.status, 255) << args.back() << ": " << r.err;
        for (bool commands : {false, true}) {
            const std::regex &re = commands ? command : option;
            for (std::sregex_iterator it(r.err.begin(), r.err.end(), re), end;
                 it != end && (!commands || args.size() == 1); ++it) {
                std::string word = (*it)[1];
                options += !commands;
                std::regex alone("(^|[^A-Za-z0-9-])" + word + "($|[^A-Za-z0-9-])");
                EXPECT_TRUE(commands ? page.find("\n   " + word + "\n") != std::string::npos
                                     : std::regex_search(page, alone))
                    << "the manual page does not describe " << word << ", shown by " << args.back();
            }
        }
    }
    EXPECT_GE(options, 20u) << "too few options found in the usage texts";
}

std::string field(const std::string &deb, const std::string &name)
{
    auto r = run({"dpkg-deb", "-f", deb, name});
    EXPECT_EQ(r.status, 0) << r.err;
    return r.out.empty() ? r.out : r.out.substr(0, r.out.size() - 1);
}

TEST(Package, BuildsUnpacksRunsAndPassesLintian)
{
    tarn_test::Sandbox sb;
    auto built = run({"cpack", "-G", "DEB", "--config", TARN_CPACK_CONFIG, "-B", sb.path("out")},
                     within(120));
    ASSERT_FALSE(built.timed_out) << "cpack did not finish within 120 s";
    ASSERT_EQ(built.status, 0) << built.out << built.err;
    std::string deb;
    for (const auto &e : fs::directory_iterator(sb.path("out")))
        deb = e.path().extension() == ".deb" ? e.path().string() : deb;
    ASSERT_NE(deb, "") << "cpack made no .deb:\n" << built.out;
    EXPECT_EQ(field(deb, "Package") + " " + field(deb, "Version") + " " + field(deb, "Section"),
              "quillon-tarn-ctl " TARN_VERSION " admin");
    EXPECT_NE(field(deb, "Depends").find("libc6 (>= "), std::string::npos)
        << "Depends was not computed from the binary";

    ASSERT_EQ(run({"dpkg-deb", "-x", deb, sb.path("root")}).status, 0);
    const std::string doc = "usr/share/doc/quillon-tarn-ctl/";
    std::set<std::string> want = {"usr/sbin/quillon-tarn-ctl",
                                  "usr/share/man/man8/quillon-tarn-ctl.8.gz",
                                  "usr/share/bash-completion/completions/quillon-tarn-ctl",
                                  doc + "README.md",
                                  doc + "copyright",
                                  doc + "changelog.gz",
                                  doc + "docs/configuration.md"};
    // Anything else (a simulator, a test helper) must not be there.
    for (const auto &e : fs::recursive_directory_iterator(sb.path("root"))) {
        std::string rel = fs::relative(e.path(), sb.path("root"));
        bool doc_page = rel.rfind(doc + "docs/", 0) == 0 && e.path().extension() == ".md";
        EXPECT_TRUE(!e.is_regular_file() || want.erase(rel) == 1 || doc_page)
            << "unexpected " << rel;
    }
    EXPECT_TRUE(want.empty()) << "the package lacks " << *want.begin();

    auto help = run({sb.path("root/usr/sbin/quillon-tarn-ctl"), "-h"}, within(10));
    EXPECT_EQ(help.status, 255);
    EXPECT_EQ(help.err.rfind("TARN control tool.\n", 0), 0u) << help.err;

    if (!installed("lintian"))
        GTEST_SKIP() << "lintian is not installed (scripts/install-deps lintian installs it); "
                        "the package was built, unpacked and run, but not checked";
    auto lint = run({"lintian", "--allow-root", deb}, within(180));
    ASSERT_FALSE(lint.timed_out) << "lintian did not finish within 180 s";
    std::regex error_line("(^|\n)E: [^\n]*");
    EXPECT_FALSE(std::regex_search(lint.out, error_line)) << lint.out << lint.err;
}

} // namespace
