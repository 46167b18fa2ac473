// The manual page against the tool: every option that a usage text shows,
// and every command, must be described; mandoc finds nothing to complain of.
#include "sandbox.h"

#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <sstream>

using tarn_test::run;
using tarn_test::run_tool;

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
    for (char c : r.out) {
        if (c == '\b' && !plain.empty())
            plain.pop_back(); // overstrike: bold and underline
        else if (c != '\b')
            plain += c;
    }
    return plain;
}

// Whether `word` stands in `text` on its own, not as part of a longer option.
bool mentions(const std::string &text, const std::string &word)
{
    auto part = [](char c) { return isalnum(static_cast<unsigned char>(c)) || c == '-'; };
    for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) {
        bool starts = at == 0 || !part(text[at - 1]);
        size_t end = at + word.size();
        if (starts && (end == text.size() || !part(text[end])))
            return true;
    }
    return false;
}

std::set<std::string> options_in(const std::string &usage)
{
    static const std::regex option("(?:^|[\\s|,\\[(])(--?[A-Za-z][A-Za-z0-9-]*)");
    std::set<std::string> found;
    for (std::sregex_iterator it(usage.begin(), usage.end(), option), end; it != end; ++it)
        found.insert((*it)[1]);
    return found;
}

// The command words listed under "Commands:" in the frame's usage text.
std::set<std::string> commands_in(const std::string &usage)
{
    std::set<std::string> found;
    std::istringstream in(usage.substr(usage.find("Commands:\n") + 10));
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        std::string word;
        if (words >> word)
            found.insert(word);
    }
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
    std::string page = rendered_page();
    size_t options = 0;
    for (const auto &args : rows) {
        std::string shown;
        for (const auto &a : args)
            shown += (a == conf ? "CONF" : a) + " ";
        SCOPED_TRACE(shown);
        auto r = run_tool(args);
        ASSERT_EQ(r.status, 255) << r.err;
        ASSERT_NE(r.err, "");
        for (const auto &opt : options_in(r.err)) {
            ++options;
            EXPECT_TRUE(mentions(page, opt)) << "the manual page lacks " << opt;
        }
        if (args == rows.front()) {
            for (const auto &command : commands_in(r.err))
                EXPECT_NE(page.find("\n   " + command + "\n"), std::string::npos)
                    << "the manual page has no section for " << command;
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
