#include "nfs_harness.h"

#include <sstream>

namespace tarn_test
{

namespace
{

const char kStateDir[] = "nfs-state";

// Stand-in name, and the system path it covers.
const char *const kStandins[][2] = {
    {"mount", "/bin/mount"}, {"umount", "/bin/umount"},           {"df", "/bin/df"},
    {"cat", "/bin/cat"},     {"bundlectl", "/usr/bin/bundlectl"},
};

} // namespace

NfsSim::NfsSim(const Sandbox &sb) : sb_(sb), state_(sb.mkdir(kStateDir))
{
    // The stand-in cat runs this copy for every file but /proc/mounts: inside
    // the namespace the real one is covered.
    sb_.write_file(std::string(kStateDir) + "/real-cat", read_file("/usr/bin/cat"), 0755);
    sb_.write_file(std::string(kStateDir) + "/mounts", "");
}

RunOptions NfsSim::options() const
{
    RunOptions o;
    o.in_namespace = true;
    for (const auto &standin : kStandins)
        o.mounts.emplace_back(std::string(TARN_NFS_STANDINS) + "/" + standin[0], standin[1]);
    o.env.push_back("TARN_NFS_STATE=" + state_);
    o.env.push_back(std::string("TARN_NFS_STANDINS=") + TARN_NFS_STANDINS);
    return o;
}

void NfsSim::add_mount(const std::string &source, const std::string &target,
                       const std::string &type) const
{
    std::string rel = std::string(kStateDir) + "/mounts";
    sb_.write_file(rel,
                   sb_.read_file(rel) + source + " " + target + " " + type + " rw,relatime 0 0\n");
}

std::string NfsSim::mount_table() const
{
    return sb_.read_file(std::string(kStateDir) + "/mounts");
}

std::vector<std::string> NfsSim::calls(const std::string &program) const
{
    std::vector<std::string> lines;
    std::istringstream in(read_file(state_ + "/" + program + ".log"));
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

void NfsSim::fail(const std::string &program, int exit_code) const
{
    sb_.write_file(std::string(kStateDir) + "/fail." + program, std::to_string(exit_code) + "\n");
}

void NfsSim::delay(const std::string &program, const std::string &seconds) const
{
    sb_.write_file(std::string(kStateDir) + "/delay." + program, seconds + "\n");
}

} // namespace tarn_test
