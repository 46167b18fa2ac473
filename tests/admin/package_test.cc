// The Debian package, built with CPack from this build tree, checked with
// lintian and unpacked into a temporary root; nothing is installed.
#include "sandbox.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <set>

using tarn_test::run;

namespace fs = std::filesystem;

namespace
{

tarn_test::RunOptions within(int seconds)
{
    tarn_test::RunOptions opts;
    opts.timeout_ms = seconds * 1000;
    return opts;
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
        if (e.path().extension() == ".deb")
            deb = e.path();
    ASSERT_NE(deb, "") << "cpack made no .deb:\n" << built.out;

    EXPECT_EQ(field(deb, "Package"), "quillon-tarn-ctl");
    EXPECT_EQ(field(deb, "Version"), TARN_VERSION);
    EXPECT_EQ(field(deb, "Section"), "admin");
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
        if (!e.is_regular_file())
            continue;
        bool doc_page = rel.rfind(doc + "docs/", 0) == 0 && e.path().extension() == ".md";
        EXPECT_TRUE(want.erase(rel) == 1 || doc_page) << "unexpected file " << rel;
    }
    for (const auto &missing : want)
        ADD_FAILURE() << "the package lacks " << missing;

    auto help = run({sb.path("root/usr/sbin/quillon-tarn-ctl"), "-h"}, within(10));
    EXPECT_EQ(help.status, 255);
    EXPECT_EQ(help.err.rfind("TARN control tool.\n", 0), 0u) << help.err;

    if (run({"sh", "-c", "command -v lintian"}).status != 0)
        GTEST_SKIP() << "lintian is not installed (scripts/install-deps lintian installs it); "
                        "the package was built, unpacked and run, but not checked";
    auto lint = run({"lintian", "--allow-root", deb}, within(180));
    ASSERT_FALSE(lint.timed_out) << "lintian did not finish within 180 s";
    std::string errors;
    for (size_t at = 0; at < lint.out.size();) {
        size_t nl = lint.out.find('\n', at);
        std::string line = lint.out.substr(at, nl - at);
        if (line.rfind("E: ", 0) == 0)
            errors += line + "\n";
        at = nl == std::string::npos ? lint.out.size() : nl + 1;
    }
    EXPECT_EQ(errors, "") << lint.err;
}

} // namespace
