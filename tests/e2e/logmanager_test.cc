// enable-logmanager against private copies of /etc/quillon and
// /etc/logmanager.d in a mount namespace: the real /etc is never touched.
#include "sandbox.h"

#include <csignal>
#include <gtest/gtest.h>

using tarn_test::RunOptions;
using tarn_test::Sandbox;

namespace
{

const std::string kAppended = "log.path = /var/log/quillon/tarn\n"
                              "log.filename_prefix = tarn\n"
                              "log.compression = zst\n"
                              "log.max_file_size = 200M\n";

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
// (null: none).
// The log manager's own file is written unless its directory is missing.
// Status 143: SIGTERM is sent while sed (a slow stand-in) runs.
struct EditCase {
    const char *name;
    const char *quillon;
    const char *other;
    int runs;
    int status;                           // 1: /etc/logmanager.d is missing
    const char *err;                      // a part of standard error
    std::string want_quillon, want_other; // empty: not checked
};

const EditCase kEdits[] = {
    {"comments_out_log_settings",
     "root_dir = /srv\nlog.level = 4\n  log.path=/tmp/x\nsome.log.key = 1\n# see log. for "
     "details\n#log.old = 5\n",
     nullptr, 1, 0, "",
     "root_dir = /srv\n#log.level = 4\n  #log.path=/tmp/x\nsome.#log.key = 1\n# see log. for "
     "details\n##log.old = 5\n" +
         kAppended,
     ""},
    // No final newline: the first appended line joins the last line.
    {"second_run_keeps_one_active_copy", "root_dir = /srv", nullptr, 2, 0, "",
     "root_dir = /srv#log.path = /var/log/quillon/tarn\n#log.filename_prefix = "
     "tarn\n#log.compression = zst\n#log.max_file_size = 200M\n" +
         kAppended,
     ""},
    {"other_config_gets_the_lines", "root_dir = /srv\nlog.level = 1\n",
     "root_dir = /other\nlog.level = 2\n", 1, 0, "", "root_dir = /srv\n#log.level = 1\n",
     "root_dir = /other\nlog.level = 2\n" + kAppended},
    {"missing_default_config_only_warns", nullptr, "root_dir = /other\n", 1, 0, "sed", "",
     "root_dir = /other\n" + kAppended},
    {"missing_logmanager_directory", "root_dir = /srv\nlog.level = 1\n", nullptr, 1, 1,
     " E Can't open '/etc/logmanager.d/tarn.conf': No such file or directory\n",
     "root_dir = /srv\n#log.level = 1\n" + kAppended, ""},
    // SIGTERM while sed runs: the command ends its steps, then stops.
    {"sigterm_while_sed_runs", "log.level = 4\n", nullptr, 1, 143,
     "received SIGTERM; stopping after the running step", "#log.level = 4\n" + kAppended, ""},
};

TEST(EnableLogmanager, EditsTheConfigurationAndWritesItsOwnFile)
{
    TARN_REQUIRE_NAMESPACES();
    for (const EditCase &c : kEdits) {
        SCOPED_TRACE(c.name);
        Sandbox sb;
        RunOptions o = in_namespace(sb, c.status != 1);
        if (c.quillon)
            sb.write_file("etc-quillon/tarn.config", c.quillon);
        std::vector<std::string> args = {"enable-logmanager", "extra", "words"};
        if (c.other)
            args.insert(args.begin(), {"--config", sb.write_file("other.conf", c.other)});
        if (c.status == 143) {
            sb.write_file("bin/sed", "#!/bin/sh\n: >started\nsleep 0.7\nexec /bin/sed \"$@\"\n",
                          0755);
            o.path = {sb.path("bin")}, o.cwd = sb.dir(), o.signal_file = sb.path("started");
            o.signals = {SIGTERM}, o.timeout_ms = 10000;
        }
        tarn_test::RunResult r;
        for (int i = 0; i < c.runs; i++)
            r = tarn_test::run_tool(args, o);
        ASSERT_FALSE(r.timed_out) << "enable-logmanager did not end within 10 s";
        EXPECT_EQ(r.status, c.status) << r.err;
        EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
        EXPECT_EQ(c.want_quillon.empty() ? "" : sb.read_file("etc-quillon/tarn.config"),
                  c.want_quillon);
        EXPECT_EQ(c.want_other.empty() ? "" : sb.read_file("other.conf"), c.want_other);
        EXPECT_EQ(sb.read_file("etc-logmanager/tarn.conf"),
                  c.status != 1 ? "path: \"/var/log/quillon/tarn\"\n" : "");
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
    for (std::string failing :
         {sb.mkdir("full") + "/tarn.config", std::string("/etc/logmanager.d/tarn.conf")}) {
        bool config = failing.ends_with(".config");
        std::string dir = failing.substr(0, failing.rfind('/'));
        std::string script =
            "set -e; mount -t tmpfs -o size=64k tmpfs '" + dir + "'; cd '" + dir + "'; " +
            (config ? "head -c 4095 /dev/zero | tr '\\0' '#' >tarn.config; echo >>tarn.config; "
                    : "") +
            "dd if=/dev/zero of=fill bs=4096 2>/dev/null || :; exec '" + tarn_test::tool_path() +
            "' -c '" + (config ? failing : "/etc/quillon/tarn.config") + "' enable-logmanager";
        auto r = tarn_test::run({"sh", "-c", script}, o);
        EXPECT_EQ(r.status, 1) << failing << ": " << r.err;
        EXPECT_NE(r.err.find(" E Can't write to '" + failing + "': No space left on device\n"),
                  std::string::npos)
            << r.err;
    }
}

} // namespace
