// The manual page against the tool: every option that a usage text shows,
// and every command, must be described; mandoc finds nothing to complain of.
#include "sandbox.h"

#include <gtest/gtest.h>
#include <regex>
#include <set>

using tarn_test::run;

namespace
{

bool have_mandoc()
{
    return run({"sh", "-c", "command -v mandoc"}).status == 0;
}

// The page as a reader sees it, on lines long enough never to break a word.
std::string rendered_page()
{
    auto r = run({"mandoc", "-T", "ascii", "-O", "width=1000", TARN_MANPAGE});
    EXPECT_EQ(r.status, 0) << r.err;
    std::string plain;
    for (char c : r.out) // drop the overstrikes of bold and underlined text
        c == '\b' ? plain.pop_back() : plain.push_back(c);
    return plain;
}

std::set<std::string> captures(const std::string &text, const std::regex &re)
{
    std::set<std::string> found;
    for (std::sregex_iterator it(text.begin(), text.end(), re), end; it != end; ++it)
        found.insert((*it)[1]);
    return found;
}

TEST(ManPage, DescribesEveryOptionOfEveryUsageText)
{
    if (!have_mandoc())
        GTEST_SKIP() << "mandoc is not installed (scripts/install-deps installs it)";
    tarn_test::Sandbox sb;
    std::string conf =
        sb.write_config("tarn.config", {{"root_dir", sb.dir()}, {"storage.type", "local"}});
    // Each row makes the tool print one usage text.
    const std::vector<std::vector<std::string>> rows = {
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
    std::string page = rendered_page();
    size_t options = 0;
    for (const auto &args : rows) {
        auto r = tarn_test::run_tool(args);
        ASSERT_EQ(r.status, 255) << args.back() << ": " << r.err;
        for (const auto &opt : captures(r.err, option)) {
            ++options;
            std::regex alone("(^|[^A-Za-z0-9-])" + opt + "($|[^A-Za-z0-9-])");
            EXPECT_TRUE(std::regex_search(page, alone))
                << "the manual page lacks " << opt << ", shown by: " << args.back();
        }
        if (args != rows.front())
            continue;
        for (const auto &word : captures(r.err, command)) {
            EXPECT_NE(page.find("\n   " + word + "\n"), std::string::npos)
                << "the manual page has no section for " << word;
        }
    }
    EXPECT_GE(options, 20u) << "too few options found in the usage texts";
}

TEST(ManPage, LintFindsNothingAboveStyle)
{
    if (!have_mandoc())
        GTEST_SKIP() << "mandoc is not installed (scripts/install-deps installs it)";
    auto r = run({"mandoc", "-T", "lint", "-W", "warning", TARN_MANPAGE});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out + r.err, "");
}

} // namespace
