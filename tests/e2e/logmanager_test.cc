// enable-logmanager against private copies of /etc/quillon and
// /etc/logmanager.d in a mount namespace: the real /etc is never touched.
#include "sandbox.h"

#include <gtest/gtest.h>

using tarn_test::run_tool;
using tarn_test::RunOptions;
using tarn_test::Sandbox;

namespace
{

const char kAppended[] = "log.path = /var/log/quillon/tarn\n"
                         "log.filename_prefix = tarn\n"
                         "log.compression = zst\n"
                         "log.max_file_size = 200M\n";
const char kServiceConf[] = "path: \"/var/log/quillon/tarn\"\n";

class EnableLogmanager : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        TARN_REQUIRE_NAMESPACES();
        sb_.mkdir("etc-quillon", 0755);
        sb_.mkdir("etc-logmanager", 0755);
    }

    RunOptions opts(bool with_logmanager_dir = true) const
    {
        RunOptions o;
        o.in_namespace = true;
        o.mounts.emplace_back(sb_.path("etc-quillon"), "/etc/quillon");
        if (with_logmanager_dir)
            o.mounts.emplace_back(sb_.path("etc-logmanager"), "/etc/logmanager.d");
        return o;
    }

    Sandbox sb_;
};

TEST_F(EnableLogmanager, CommentsOutLogSettingsAndAppendsFixedOnes)
{
    sb_.write_file("etc-quillon/tarn.config", "root_dir = /srv\n"
                                              "log.level = 4\n"
                                              "  log.path=/tmp/x\n"
                                              "some.log.key = 1\n"
                                              "# see log. for details\n"
                                              "#log.old = 5\n");
    auto r = run_tool({"enable-logmanager", "extra", "words"}, opts());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(sb_.read_file("etc-quillon/tarn.config"), std::string("root_dir = /srv\n"
                                                                    "#log.level = 4\n"
                                                                    "  #log.path=/tmp/x\n"
                                                                    "some.#log.key = 1\n"
                                                                    "# see log. for details\n"
                                                                    "##log.old = 5\n") +
                                                            kAppended);
    EXPECT_EQ(sb_.read_file("etc-logmanager/tarn.conf"), kServiceConf);
}

TEST_F(EnableLogmanager, SecondRunKeepsOneActiveCopy)
{
    sb_.write_file("etc-quillon/tarn.config", "root_dir = /srv");
    ASSERT_EQ(run_tool({"enable-logmanager"}, opts()).status, 0);
    ASSERT_EQ(run_tool({"enable-logmanager"}, opts()).status, 0);
    // No final newline: the first appended line joins the last line.
    EXPECT_EQ(sb_.read_file("etc-quillon/tarn.config"),
              std::string("root_dir = /srv#log.path = /var/log/quillon/tarn\n"
                          "#log.filename_prefix = tarn\n"
                          "#log.compression = zst\n"
                          "#log.max_file_size = 200M\n") +
                  kAppended);
}

TEST_F(EnableLogmanager, OtherConfigGetsTheLinesDefaultGetsCommentedOut)
{
    sb_.write_file("etc-quillon/tarn.config", "root_dir = /srv\nlog.level = 1\n");
    std::string other = sb_.write_file("other.conf", "root_dir = /other\nlog.level = 2\n");
    auto r = run_tool({"--config", other, "enable-logmanager"}, opts());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(sb_.read_file("etc-quillon/tarn.config"), "root_dir = /srv\n#log.level = 1\n");
    EXPECT_EQ(sb_.read_file("other.conf"),
              std::string("root_dir = /other\nlog.level = 2\n") + kAppended);
}

TEST_F(EnableLogmanager, MissingDefaultConfigOnlyWarnsThroughSed)
{
    std::string other = sb_.write_file("other.conf", "root_dir = /other\n");
    auto r = run_tool({"-c", other, "enable-logmanager"}, opts());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("sed"), std::string::npos) << r.err;
    EXPECT_EQ(sb_.read_file("other.conf"), std::string("root_dir = /other\n") + kAppended);
    EXPECT_EQ(sb_.read_file("etc-logmanager/tarn.conf"), kServiceConf);
}

TEST_F(EnableLogmanager, MissingLogmanagerDirectoryFailsAfterTheEdits)
{
    sb_.write_file("etc-quillon/tarn.config", "root_dir = /srv\nlog.level = 1\n");
    auto r = run_tool({"enable-logmanager"}, opts(false));
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(
        r.err.find(" E Can't open '/etc/logmanager.d/tarn.conf': No such file or directory\n"),
        std::string::npos)
        << r.err;
    EXPECT_EQ(sb_.read_file("etc-quillon/tarn.config"),
              std::string("root_dir = /srv\n#log.level = 1\n") + kAppended);
}

// A full file system fails the checked write, for either file. Each row
// fills a small tmpfs (the configuration's directory, or the log manager's)
// in the namespace; the configuration fills its first page exactly, so an
// append needs a page that is not there.
TEST_F(EnableLogmanager, FullDiskIsReportedNotIgnored)
{
    sb_.write_file("etc-quillon/tarn.config", "root_dir = /srv\n");
    std::string full = sb_.mkdir("full");
    const std::string fill = "dd if=/dev/zero of=\"$D/fill\" bs=4096 2>/dev/null || :; ";
    struct {
        std::string dir, config, failing;
    } cases[] = {
        {full, full + "/tarn.config", full + "/tarn.config"},
        {"/etc/logmanager.d", "/etc/quillon/tarn.config", "/etc/logmanager.d/tarn.conf"},
    };
    for (const auto &c : cases) {
        std::string script =
            "set -e; D='" + c.dir + "'; mount -t tmpfs -o size=64k tmpfs \"$D\"; " +
            "if [ \"$D\" != /etc/logmanager.d ]; then head -c 4095 /dev/zero | "
            "tr '\\0' '#' >\"$D/tarn.config\"; echo >>\"$D/tarn.config\"; fi; " +
            fill + "exec '" + tarn_test::tool_path() + "' -c '" + c.config + "' enable-logmanager";
        auto r = tarn_test::run({"sh", "-c", script}, opts());
        EXPECT_EQ(r.status, 1) << c.failing << ": " << r.err;
        EXPECT_NE(r.err.find(" E Can't write to '" + c.failing + "': No space left on device\n"),
                  std::string::npos)
            << r.err;
    }
}

TEST_F(EnableLogmanager, UnwritableConfigIsReported)
{
    sb_.write_file("etc-quillon/tarn.config", "root_dir = /srv\n");
    std::string dir_as_config = sb_.mkdir("not-a-file");
    auto r = run_tool({"-c", dir_as_config, "enable-logmanager"}, opts());
    // A directory parses as no configuration at all, so loading fails first.
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("Failed to open or parse config file"), std::string::npos) << r.err;
}

} // namespace
