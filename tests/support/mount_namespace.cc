// Private mount namespaces for tests of code that uses fixed system paths.
#include "sandbox.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarn_test
{

namespace
{

bool fail(std::string &error, const std::string &what)
{
    error = what + ": " + strerror(errno);
    return false;
}

bool exists(const std::string &p)
{
    struct stat st;
    return lstat(p.c_str(), &st) == 0;
}

// Covers `dir` with a tmpfs in which every original entry is a symbolic link
// to the original, reachable under dir/.tarn-host. New entries can then be
// made in `dir` without touching the real one.
bool shadow_dir(const std::string &dir, std::string &error)
{
    std::string host = dir + "/.tarn-host";
    if (exists(host))
        return true;
    // A detached copy of the original tree, taken before the tmpfs covers it.
    int tree = open_tree(AT_FDCWD, dir.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE);
    if (tree < 0 || mount("tmpfs", dir.c_str(), "tmpfs", 0, "mode=0755") != 0 ||
        ::mkdir(host.c_str(), 0755) != 0 ||
        move_mount(tree, "", AT_FDCWD, host.c_str(), MOVE_MOUNT_F_EMPTY_PATH) != 0)
        return fail(error, "shadow " + dir);
    close(tree);
    DIR *d = opendir(host.c_str());
    while (dirent *e = d ? readdir(d) : nullptr) {
        std::string name = e->d_name;
        if (name != "." && name != ".." &&
            symlink((host + "/" + name).c_str(), (dir + "/" + name).c_str()) != 0) {
            closedir(d);
            return fail(error, "symlink " + dir + "/" + name);
        }
    }
    return d ? closedir(d) == 0 : fail(error, "opendir " + host);
}

// Makes `target` exist (as a directory or an empty file), shadowing parents
// as needed.
bool make_target(const std::string &target, bool as_dir, std::string &error)
{
    size_t slash = target.find_last_of('/');
    std::string parent = slash == 0 ? "/" : target.substr(0, slash);
    if (!exists(parent) && !make_target(parent, true, error))
        return false;
    if (!shadow_dir(parent, error))
        return false;
    if (exists(target) && unlink(target.c_str()) != 0) // a link made by shadow_dir
        return fail(error, "unlink " + target);
    int fd = -1;
    if (as_dir ? ::mkdir(target.c_str(), 0755) != 0
               : (fd = open(target.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644)) < 0)
        return fail(error, "create " + target);
    return fd < 0 || close(fd) == 0;
}

} // namespace

bool enter_mount_namespace(const RunOptions &opts, std::string &error)
{
    if (unshare(CLONE_NEWNS) != 0)
        return fail(error, "unshare(CLONE_NEWNS)");
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return fail(error, "make / private");
    for (const auto &[source, target] : opts.mounts) {
        struct stat st;
        if (stat(source.c_str(), &st) != 0)
            return fail(error, "stat " + source);
        struct stat tst;
        if (stat(target.c_str(), &tst) != 0 && !make_target(target, S_ISDIR(st.st_mode), error))
            return false;
        if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0)
            return fail(error, "bind " + source + " over " + target);
    }
    return true;
}

std::optional<std::string> namespace_unavailable_reason()
{
    static const std::optional<std::string> reason = []() -> std::optional<std::string> {
        RunOptions probe;
        probe.mounts = {{"/dev/null", "/dev/null"}};
        RunResult r = run({"true"}, probe);
        if (r.status == 0)
            return std::nullopt;
        return r.err.empty() ? "probe failed" : r.err;
    }();
    return reason;
}

} // namespace tarn_test
