// The nfs command against a simulated NFS volume: stand-ins for mount,
// umount, df, the archive tool and the mount table reader, bound over the
// system paths in a private mount namespace (tests/support/nfs_harness.h).
#include "nfs_harness.h"
#include "sandbox.h"

#include <csignal>
#include <gtest/gtest.h>
#include <map>
#include <sstream>

namespace
{

const std::string kUsage = tarn_test::read_file(TARN_USAGE_DIR "/nfs.txt");

// In the texts below "@M" stands for the mount point, "@O" for the fixed
// mount options and "@R" for the root.
const char kOptions[] = "hard,timeo=20,retrans=4,fg,retry=0";
const char kOnce[] = "> $root_dir/storage is not mounted, or mounted multiple times: \"/bin/cat "
                     "/proc/mounts | /bin/grep -F '@M' | /usr/bin/wc -l | /bin/grep '^1$' "
                     ">/dev/null\" exited with error 1";
const std::string kMismatch = "> NFS mount parameters mismatch: \"/bin/cat /proc/mounts | "
                              "/bin/grep '^srv:/\\?/exp @M ";
const std::string kNotFound = "' in the config: -8 (not found)";
const std::string kAlphabet = "' config parameter: -30 (invalid argument); it should contain "
                              "only chars from an alphabet [a-zA-Z0-9./_-]";

// One run of the command; lists are separated by "|". Before it, `setup`
// steps: "KEY=VALUE" changes the configuration ("<unset>" removes the key),
// "mount SOURCE TYPE [SUFFIX]" (a mount table line at the mount point, with
// SUFFIX appended), "file REL" (in the sandbox), "fail PROGRAM CODE", "slow
// PROGRAM SIGNAL..." (the program sleeps 0.7 s, and the signals, INT, USR1
// or QUIT, are sent to the tool once it has been called). After it: the
// status, then `expect`: every stand-in's calls ("PROGRAM ARGS"), "out TEXT"
// (a part of standard output, which is otherwise empty), "table TEXT" (the
// whole mount table), "+REL"/"-REL" (files that must or must not exist); and
// `err`: the whole error-level log line (122), the whole standard error
// before the usage (255), or "<none>" for an empty one.
struct Scenario {
    const char *name;
    const char *args;
    std::string setup;
    int status;
    std::string expect;
    std::string err;
};

// The configuration before a row's changes.
const std::string kDefaults = "storage.type=nfs|root_dir=@R|storage.nfs.host=srv|"
                              "storage.nfs.export=/exp|cluster.enable=yes|";
const std::string kMounted = "mount srv:/exp nfs4";
const std::string kMountCall = "mount -t nfs4 -o @O,local_lock=none,proto=tcp srv:/exp @M";
const std::string kArchiveCall = "bundlectl -f @M/test.kpax -C full -F";
const std::string kMountedTable = kMountCall + "|" + kArchiveCall +
                                  "|table srv:/exp @M nfs4 rw,relatime,@O,local_lock=none,"
                                  "proto=tcp 0 0|";
const std::string kMountedNfs4 = kMountedTable + "-r/storage/test.kpax";

const Scenario kScenarios[] = {
    // cluster.enable picks the version: only "1", "y" and "yes" are true.
    {"flag_yes", "--mount", "", 0, kMountedNfs4, ""},
    {"flag_y", "--mount", "cluster.enable=y", 0, kMountedNfs4, ""},
    {"flag_1", "--mount", "cluster.enable=1", 0, kMountedNfs4, ""},
    {"flag_0", "--mount", "cluster.enable=0", 0,
     "mount -t nfs -o @O,local_lock=all,proto=tcp srv:/exp @M|" + kArchiveCall +
         "|table srv:/exp @M nfs rw,relatime,@O,local_lock=all,proto=tcp 0 0",
     ""},
    {"mount_when_mounted", "--mount", kMounted + "|file r/storage/backup.kpax", 0,
     kArchiveCall + "|+r/storage/backup.kpax", ""},
    {"mount_point_not_empty", "--mount", "file r/storage/stray", 122, "",
     "> failed while checking that mount point is empty; '/usr/bin/test -z \"$(/bin/ls -A "
     "'@M')\"' exited with 1"},
    {"mount_fails", "--mount", "cluster.enable=no|fail mount 32", 122,
     "mount -t nfs -o @O,local_lock=all,proto=tcp srv:/exp @M",
     "> \"/bin/mount -t nfs -o @O,local_lock=all,proto=tcp 'srv:/exp' '@M'\" exited with 32"},
    {"listed_twice", "--mount", kMounted + "|" + kMounted, 122, "", kOnce},
    {"archive_fails", "--mount", "fail bundlectl 3", 122, kMountedTable + "+r/storage/test.kpax",
     "> cannot create a test archive in \"$root_dir/storage\": \"TEST_ARCH='@M/test.kpax'; "
     "/bin/rm -f \"$TEST_ARCH\" && /usr/bin/bundlectl -f \"$TEST_ARCH\" -C full -F && /bin/rm -f "
     "\"$TEST_ARCH\"\" exited with error 3"},
    // Neither host nor export is needed to unmount.
    {"umount", "--umount",
     "storage.nfs.host=<unset>|storage.nfs.export=<unset>|" + kMounted + "|mount srv:/exp nfs4 2",
     0, "umount @M|table srv:/exp @M2 nfs4 rw,relatime 0 0", ""},
    {"umount_nothing_mounted_skips_alphabet", "--umount", "root_dir=@R/a b", 0, "", "<none>"},
    {"umount_fails", "--umount", kMounted + "|fail umount 32", 122, "umount @M",
     "> \"/bin/umount '@M'\" exited with 32"},
    {"df_fails", "--df", kMounted + "|fail df 1", 122, "df @M",
     "> \"/bin/df '@M'\" exited with error 1"},
    {"df_expanded_root", "--df", "base=@R|root_dir=${base}|" + kMounted, 0, "df @M|out srv:/exp",
     ""},
    {"empty_export", "--mount", "storage.nfs.export=", 0,
     "mount -t nfs4 -o @O,local_lock=none,proto=tcp srv: @M|" + kArchiveCall, ""},
    {"abbreviated_then_leftover", "--mo --df", "", 255, kMountCall + "|" + kArchiveCall,
     "Can't parse '--df' as an argument.\n"},
    // The mount table line must match host, export and type.
    {"params_v4_wants_nfs4", "--mount", "mount srv:/exp nfs", 122, "",
     kMismatch + "nfs4 ' >/dev/null\" exited with error 1"},
    {"params_v3_ext4", "--mount", "cluster.enable=no|mount srv:/exp ext4", 122, "",
     kMismatch + "\\(nfs\\|nfs4\\) ' >/dev/null\" exited with error 1"},
    {"params_relative_export", "--mount", "storage.nfs.export=exp|" + kMounted, 0, kArchiveCall,
     ""},
    {"params_name_characters", "--mount",
     "storage.nfs.host=nfs-1.a_b|storage.nfs.export=/e_x-1.2|mount nfs-1.a_b:/e_x-1.2 nfs4", 0,
     kArchiveCall, ""},
    // Refusals come before any program runs; hostile values never reach a shell.
    {"no_type", "--mount", "storage.type=<unset>|" + kMounted, 122, "",
     "> failed to find a line 'storage.type = nfs" + kNotFound},
    {"type_local", "--df", "storage.type=local|" + kMounted, 122, "",
     "> failed to find a line 'storage.type = nfs' in the config: -29 (malformed data)"},
    {"no_root", "--umount", "root_dir=<unset>|" + kMounted, 122, "",
     "> failed to find a line 'root_dir = </absolute/path>" + kNotFound},
    {"no_host", "--df", "storage.nfs.host=<unset>|" + kMounted, 122, "",
     "> failed to find a line 'storage.nfs.host = <host>" + kNotFound},
    {"no_export", "--mount", "storage.nfs.export=<unset>|" + kMounted, 122, "",
     "> failed to find a line 'storage.nfs.export = <export>" + kNotFound},
    {"no_flag", "--mount", "cluster.enable=<unset>|" + kMounted, 122, "",
     "> Failed to find a line 'cluster.enable = (1|y|yes|0|n|no)" + kNotFound},
    {"root_command_df", "--df", "root_dir=/tmp/a';touch x;'|" + kMounted, 122, "",
     "> invalid 'root_dir" + kAlphabet},
    {"root_command_umount", "--umount", "root_dir=/tmp/a';touch x;'|" + kMounted, 122, "",
     "> invalid 'root_dir' config parameter: -30 (invalid argument); it should not contain a "
     "single quote"},
    {"host_semicolon", "--mount", "storage.nfs.host=srv;touch x|" + kMounted, 122, "",
     "> invalid 'storage.nfs.host" + kAlphabet},
    {"export_blank", "--df", "storage.nfs.export=/e x|" + kMounted, 122, "",
     "> invalid 'storage.nfs.export" + kAlphabet},
    // SIGINT stops the command after the running program; SIGUSR1 and
    // SIGQUIT change nothing.
    {"signal_during_mount", "--mount", "slow mount INT", 130, kMountCall,
     "> stopped by signal SIGINT after \"/bin/mount -t nfs4 -o @O,local_lock=none,proto=tcp "
     "'srv:/exp' '@M'\""},
    {"signals_ignored", "--mount", "slow mount USR1 QUIT", 0, kMountedNfs4, ""},
    // Option errors: nothing runs.
    {"no_option", "", "", 255, "", "Option is expected.\n"},
    {"unknown_option", "-x --mount", "", 255, "", "Unknown option '-x'.\n"},
    {"help_first", "--he --mount", "", 255, "", ""},
};

const std::map<std::string, int> kSignals = {{"INT", SIGINT}, {"USR1", SIGUSR1}, {"QUIT", SIGQUIT}};

std::vector<std::string> split(const std::string &s, char sep)
{
    std::vector<std::string> out;
    std::istringstream in(s);
    for (std::string item; std::getline(in, item, sep);)
        if (!item.empty())
            out.push_back(item);
    return out;
}

TEST(Nfs, StatusMessageAndCalls)
{
    TARN_REQUIRE_NAMESPACES();
    for (const Scenario &s : kScenarios) {
        SCOPED_TRACE(s.name);
        tarn_test::Sandbox sb;
        tarn_test::NfsSim sim{sb};
        std::string root = sb.mkdir("r"), mnt = sb.mkdir("r/storage");
        auto expand = [&](std::string s) {
            for (auto [mark, value] :
                 {std::pair<std::string, std::string>{"@M", mnt}, {"@O", kOptions}, {"@R", root}})
                for (size_t at = 0; (at = s.find(mark, at)) != std::string::npos;
                     at += value.size())
                    s.replace(at, mark.size(), value);
            return s;
        };
        auto options = sim.options();
        options.cwd = sb.dir();
        std::map<std::string, std::string> config;
        for (const std::string &step : split(kDefaults + s.setup, '|')) {
            auto w = split(step, ' ');
            size_t eq = step.find('=');
            if (eq < w[0].size()) {
                config[step.substr(0, eq)] = expand(step.substr(eq + 1));
            } else if (w[0] == "mount") {
                sim.add_mount(w[1], mnt + (w.size() > 3 ? w[3] : ""), w[2]);
            } else if (w[0] == "file") {
                sb.write_file(w[1], "x");
            } else if (w[0] == "fail") {
                sim.fail(w[1], std::stoi(w[2]));
            } else {
                sim.delay(w[1], "0.7");
                options.signal_file = sim.state_dir() + "/" + w[1] + ".log";
                for (size_t i = 2; i < w.size(); i++)
                    options.signals.push_back(kSignals.at(w[i]));
            }
        }
        std::erase_if(config, [](const auto &kv) { return kv.second == "<unset>"; });
        std::string conf = sb.write_config("tarn.config", {config.begin(), config.end()});
        auto r = tarn_test::run_tool(split("-c " + conf + " nfs " + s.args, ' '), options);
        ASSERT_FALSE(r.timed_out) << "nfs did not end within 30 s:\n" << r.err;
        EXPECT_EQ(r.status, s.status) << r.err;
        EXPECT_EQ(r.err.find("signal") != std::string::npos, s.status == 130) << r.err;
        if (s.status == 255) {
            EXPECT_EQ(r.err, s.err + kUsage);
        } else if (s.status != 0) {
            EXPECT_NE(r.err.find(" E " + expand(s.err) + "\n"), std::string::npos) << r.err;
        } else if (s.err == "<none>") {
            EXPECT_EQ(r.err, "");
        }
        EXPECT_FALSE(sb.exists("x")) << "a configuration value ran as a command";
        std::map<std::string, std::vector<std::string>> calls;
        std::string out;
        for (const std::string &e : split(s.expect, '|')) {
            std::string word = e.substr(0, e.find(' ')),
                        rest = expand(e.substr(std::min(word.size() + 1, e.size())));
            if (word[0] == '+' || word[0] == '-') {
                EXPECT_EQ(sb.exists(e.substr(1)), word[0] == '+') << e;
            } else if (word == "table") {
                EXPECT_EQ(sim.mount_table(), rest.empty() ? "" : rest + "\n");
            } else if (word == "out") {
                out = rest;
            } else {
                calls[word].push_back(rest);
            }
        }
        EXPECT_TRUE(out.empty() ? r.out.empty() : r.out.find(out) != std::string::npos) << r.out;
        for (const char *program : {"mount", "umount", "df", "bundlectl"})
            EXPECT_EQ(sim.calls(program), calls[program]) << program;
    }
}

} // namespace
