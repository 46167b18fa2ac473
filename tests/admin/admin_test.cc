// What an administrator gets: the bash completion sourced into a real bash,
// the manual page against the tool's usage texts, and the Debian package
// built with CPack from this build tree (unpacked, never installed).
#include "sandbox.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <sstream>

using tarn_test::run;

namespace fs = std::filesystem;

namespace
{

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
        {{"--config", "=", "a"}, "a.pem"},
        {{"--config=b"}, "--config=b.conf"},
        {{"-d", "2", "--src=x"}, ""},
        {{"-d", "2", "--config", "=", "x", "-v", "pull", "--src-c"}, "--src-cert"},
        {{"pull", "--dst-cert", "="}, "a.pem b.conf"},
        {{"pull", "--src", ""}, ""},
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
    tarn_test::RunOptions in_sandbox;
    in_sandbox.cwd = sb.dir();
    for (const auto &[words, want] : rows) {
        std::vector<std::string> argv = {
            "bash", "-c", driver, "bash", TARN_COMPLETION_SCRIPT, "quillon-tarn-ctl"};
        argv.insert(argv.end(), words.begin(), words.end());
        SCOPED_TRACE(testing::PrintToString(words));
        auto r = run(argv, in_sandbox);
        EXPECT_EQ(r.err + r.out, want + "\n");
    }
}

// The usage texts, kept beside this test: how each is shown, and what
// precedes it.
struct Row {
    const char *text, *args, *before;
};
const Row kUsageRows[] = {
    {"frame", "", "No command specified.\n"},
    {"init-dirs", "init-dirs", ""},
    {"set-attr", "set-attr", ""},
    {"upgrade-dirs", "upgrade-dirs x", ""},
    {"nfs", "nfs -h", ""},
    {"pull", "pull -h", ""},
    {"replication", "replication -h", ""},
};

std::string usage_text(const Row &row)
{
    return tarn_test::read_file(TARN_USAGE_DIR "/" + std::string(row.text) + ".txt");
}

// Every usage text byte for byte: administrators and their scripts read them.
TEST(Usage, EveryTextByteForByte)
{
    tarn_test::Sandbox sb;
    std::string config =
        sb.write_config("tarn.config", {{"root_dir", sb.path("r")}, {"storage.type", "local"}});
    for (const Row &row : kUsageRows) {
        std::vector<std::string> argv = {"-c", config};
        std::istringstream in(row.args);
        for (std::string w; in >> w;)
            argv.push_back(w);
        auto r = tarn_test::run_tool(argv);
        std::string text = usage_text(row);
        ASSERT_FALSE(text.empty()) << row.text << ".txt is missing";
        EXPECT_EQ(r.status, 255) << row.args;
        EXPECT_EQ(r.err, row.before + text) << row.args;
    }
}

// Every option that a usage text shows, and every command, is described;
// mandoc finds nothing to complain of.
TEST(ManPage, DescribesEveryOptionAndLintsClean)
{
    if (run({"sh", "-c", "command -v mandoc"}).status != 0)
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

    // Options anywhere; commands as rows of the frame's "Commands:".
    const std::regex word("(?:^|[\\s|,\\[(])(--?[A-Za-z][A-Za-z0-9-]*)|\n  ([a-z][a-z-]+) ");
    size_t options = 0;
    for (const Row &row : kUsageRows) {
        std::string shown_by = row.text, text = usage_text(row);
        for (std::sregex_iterator it(text.begin(), text.end(), word), end; it != end; ++it) {
            std::string option = (*it)[1], command = (*it)[2];
            options += !option.empty();
            std::regex alone("(^|[^A-Za-z0-9-])" + option + "($|[^A-Za-z0-9-])");
            bool described = option.empty()
                                 ? shown_by != "frame" ||
                                       page.find("\n   " + command + "\n") != std::string::npos
                                 : std::regex_search(page, alone);
            EXPECT_TRUE(described) << "the manual page does not describe " << option << command
                                   << ", shown by " << shown_by;
        }
    }
    EXPECT_GE(options, 20u) << "too few options found in the usage texts";
}

TEST(Package, BuildsUnpacksRunsAndPassesLintian)
{
    tarn_test::Sandbox sb;
    tarn_test::RunOptions slow;
    slow.timeout_ms = 180000;
    auto built =
        run({"cpack", "-G", "DEB", "--config", TARN_CPACK_CONFIG, "-B", sb.path("out")}, slow);
    ASSERT_FALSE(built.timed_out) << "cpack did not finish within 180 s";
    ASSERT_EQ(built.status, 0) << built.out << built.err;
    std::string deb;
    for (const auto &e : fs::directory_iterator(sb.path("out")))
        deb = e.path().extension() == ".deb" ? e.path().string() : deb;
    ASSERT_NE(deb, "") << "cpack made no .deb:\n" << built.out;
    auto control = run({"dpkg-deb", "-f", deb});
    for (std::string field : {"Package: quillon-tarn-ctl\n", "Version: " TARN_VERSION "\n",
                              "Section: admin\n", "Depends: [^\n]*libc6 \\(>= "})
        EXPECT_TRUE(std::regex_search("\n" + control.out, std::regex("\n" + field))) << field;
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

    auto help = run({sb.path("root/usr/sbin/quillon-tarn-ctl"), "-h"});
    EXPECT_TRUE(help.status == 255 && help.err.starts_with("TARN control tool.\n")) << help.err;

    if (run({"sh", "-c", "command -v lintian"}).status != 0)
        GTEST_SKIP() << "lintian is not installed (scripts/install-deps lintian installs it); "
                        "the package was built, unpacked and run, but not checked";
    auto lint = run({"lintian", "--allow-root", deb}, slow);
    ASSERT_FALSE(lint.timed_out) << "lintian did not finish within 180 s";
    std::regex error_line("(^|\n)E: [^\n]*");
    EXPECT_FALSE(std::regex_search(lint.out, error_line)) << lint.out << lint.err;
}

} // namespace
