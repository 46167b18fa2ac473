// enable-logmanager against private copies of /etc/quillon and
// /etc/logmanager.d in a mount namespace: the real /etc is never touched.
#include "sandbox.h"

#include <csignal>
#include <gtest/gtest.h>
#include <unistd.h>

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

// Private copies of /etc/quillon and, unless left out, /etc/logmanager.d.
RunOptions in_namespace(const Sandbox &sb, bool with_logmanager_dir = true)
{
    RunOptions o;
    o.in_namespace = true;
    o.mounts.emplace_back(sb.mkdir("etc-quillon", 0755), "/etc/quillon");
    if (with_logmanager_dir)
        o.mounts.emplace_back(sb.mkdir("etc-logmanager", 0755), "/etc/logmanager.d");
    return o;
}

// One or more runs and the files they leave. `quillon`: the default
// configuration (null: none); `other`: a configuration given with "-c"
// (null: none); "@A" in the expected texts stands for the appended lines.
// Status 143: SIGTERM is sent while sed (a slow stand-in) runs.
struct EditCase {
    const char *name;
    const char *quillon;
    const char *other;
    int runs;
    bool logmanager_dir;
    int status;
    const char *err; // a part of standard error
    const char *want_quillon, *want_other;
    bool service_conf; // the log manager's file written
};

const EditCase kEdits[] = {
    {"comments_out_log_settings",
     "root_dir = /srv\nlog.level = 4\n  log.path=/tmp/x\nsome.log.key = 1\n# see log. for "
     "details\n#log.old = 5\n",
     nullptr, 1, true, 0, "",
     "root_dir = /srv\n#log.level = 4\n  #log.path=/tmp/x\nsome.#log.key = 1\n# see log. for "
     "details\n##log.old = 5\n@A",
     nullptr, true},
    // No final newline: the first appended line joins the last line.
    {"second_run_keeps_one_active_copy", "root_dir = /srv", nullptr, 2, true, 0, "",
     "root_dir = /srv#log.path = /var/log/quillon/tarn\n#log.filename_prefix = "
     "tarn\n#log.compression = zst\n#log.max_file_size = 200M\n@A",
     nullptr, true},
    {"other_config_gets_the_lines", "root_dir = /srv\nlog.level = 1\n",
     "root_dir = /other\nlog.level = 2\n", 1, true, 0, "", "root_dir = /srv\n#log.level = 1\n",
     "root_dir = /other\nlog.level = 2\n@A", true},
    {"missing_default_config_only_warns", nullptr, "root_dir = /other\n", 1, true, 0, "sed",
     nullptr, "root_dir = /other\n@A", true},
    {"missing_logmanager_directory", "root_dir = /srv\nlog.level = 1\n", nullptr, 1, false, 1,
     " E Can't open '/etc/logmanager.d/tarn.conf': No such file or directory\n",
     "root_dir = /srv\n#log.level = 1\n@A", nullptr, false},
    // SIGTERM while sed runs: the command ends its steps, then stops.
    {"sigterm_while_sed_runs", "log.level = 4\n", nullptr, 1, true, 143,
     "received SIGTERM; stopping after the running step", "#log.level = 4\n@A", nullptr, true},
};

std::string with_appended(std::string s)
{
    auto at = s.find("@A");
    return at == std::string::npos ? s : s.replace(at, 2, kAppended);
}

TEST(EnableLogmanager, EditsTheConfigurationAndWritesItsOwnFile)
{
    TARN_REQUIRE_NAMESPACES();
    for (const EditCase &c : kEdits) {
        SCOPED_TRACE(c.name);
        Sandbox sb;
        RunOptions o = in_namespace(sb, c.logmanager_dir);
        if (c.quillon)
            sb.write_file("etc-quillon/tarn.config", c.quillon);
        std::vector<std::string> args = {"enable-logmanager", "extra", "words"};
        if (c.other)
            args.insert(args.begin(), {"--config", sb.write_file("other.conf", c.other)});
        if (c.status == 143) {
            std::string sed = access("/usr/bin/sed", X_OK) == 0 ? "/usr/bin/sed" : "/bin/sed";
            sb.write_file("bin/sed", "#!/bin/sh\n: >started\nsleep 0.7\nexec " + sed + " \"$@\"\n",
                          0755);
            o.path = {sb.path("bin")}, o.cwd = sb.dir(), o.signal_file = sb.path("started");
            o.signals = {SIGTERM}, o.timeout_ms = 10000;
        }
        tarn_test::RunResult r;
        for (int i = 0; i < c.runs; i++)
            r = run_tool(args, o);
        ASSERT_FALSE(r.timed_out) << "enable-logmanager did not end within 10 s";
        EXPECT_EQ(r.status, c.status) << r.err;
        EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
        if (c.want_quillon) {
            EXPECT_EQ(sb.read_file("etc-quillon/tarn.config"), with_appended(c.want_quillon));
        }
        if (c.want_other) {
            EXPECT_EQ(sb.read_file("other.conf"), with_appended(c.want_other));
        }
        EXPECT_EQ(sb.read_file("etc-logmanager/tarn.conf"), c.service_conf ? kServiceConf : "");
    }
}

// A full file system fails the checked write, for either file. Each row
// fills a small tmpfs (the configuration's directory, or the log manager's)
// in the namespace; the configuration fills its first page exactly, so an
// append needs a page that is not there.
TEST(EnableLogmanager, FullDiskIsReportedNotIgnored)
{
    TARN_REQUIRE_NAMESPACES();
    Sandbox sb;
    RunOptions o = in_namespace(sb);
    sb.write_file("etc-quillon/tarn.config", "root_dir = /srv\n");
    std::string full = sb.mkdir("full");
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
        auto r = tarn_test::run({"sh", "-c", script}, o);
        EXPECT_EQ(r.status, 1) << c.failing << ": " << r.err;
        EXPECT_NE(r.err.find(" E Can't write to '" + c.failing + "': No space left on device\n"),
                  std::string::npos)
            << r.err;
    }
}

} // namespace
