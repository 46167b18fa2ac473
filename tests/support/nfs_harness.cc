#include "nfs_harness.h"

#include <cstring>
#include <sstream>

namespace tarn_test
{

NfsSim::NfsSim(const Sandbox &sb) : sb_(sb), state_(sb.mkdir("nfs-state"))
{
    // The stand-in cat runs this copy for every file but /proc/mounts: inside
    // the namespace the real one is covered.
    sb_.write_file("nfs-state/real-cat", read_file("/usr/bin/cat"), 0755);
    sb_.write_file("nfs-state/mounts", "");
}

RunOptions NfsSim::options() const
{
    RunOptions o;
    o.in_namespace = true;
    for (const char *path :
         {"/bin/mount", "/bin/umount", "/bin/df", "/bin/cat", "/usr/bin/bundlectl"})
        o.mounts.emplace_back(TARN_NFS_STANDINS + std::string(strrchr(path, '/')), path);
    o.env = {"TARN_NFS_STATE=" + state_, std::string("TARN_NFS_STANDINS=") + TARN_NFS_STANDINS};
    return o;
}

void NfsSim::add_mount(const std::string &source, const std::string &target,
                       const std::string &type) const
{
    sb_.write_file("nfs-state/mounts",
                   mount_table() + source + " " + target + " " + type + " rw,relatime 0 0\n");
}

std::string NfsSim::mount_table() const
{
    return sb_.read_file("nfs-state/mounts");
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
    sb_.write_file("nfs-state/fail." + program, std::to_string(exit_code) + "\n");
}

void NfsSim::delay(const std::string &program, const std::string &seconds) const
{
    sb_.write_file("nfs-state/delay." + program, seconds + "\n");
}

} // namespace tarn_test
