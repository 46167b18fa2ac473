// Private mount namespaces for tests of code that uses fixed system paths.
#include "sandbox.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <set>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tarn_test
{

namespace
{

const char kHostDir[] = ".tarn-host";

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

std::string parent_of(const std::string &p)
{
    size_t slash = p.find_last_of('/');
    return slash == 0 || slash == std::string::npos ? "/" : p.substr(0, slash);
}

// Covers `dir` with a tmpfs in which every original entry is a symbolic link
// to the original, reachable under dir/.tarn-host. New entries can then be
// made in `dir` without touching the real one.
bool shadow_dir(const std::string &dir, std::set<std::string> &shadowed, std::string &error)
{
    if (shadowed.count(dir) != 0)
        return true;
    // A detached copy of the original tree, taken before the tmpfs covers it.
    int tree = open_tree(AT_FDCWD, dir.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE);
    if (tree < 0)
        return fail(error, "open_tree " + dir);
    if (mount("tmpfs", dir.c_str(), "tmpfs", 0, "mode=0755") != 0)
        return fail(error, "mount tmpfs on " + dir);
    std::string host = dir + "/" + kHostDir;
    if (::mkdir(host.c_str(), 0755) != 0 ||
        move_mount(tree, "", AT_FDCWD, host.c_str(), MOVE_MOUNT_F_EMPTY_PATH) != 0)
        return fail(error, "attach original " + dir);
    close(tree);
    DIR *d = opendir(host.c_str());
    if (d == nullptr)
        return fail(error, "opendir " + host);
    while (dirent *e = readdir(d)) {
        std::string name = e->d_name;
        if (name == "." || name == "..")
            continue;
        if (symlink((host + "/" + name).c_str(), (dir + "/" + name).c_str()) != 0) {
            closedir(d);
            return fail(error, "symlink " + dir + "/" + name);
        }
    }
    closedir(d);
    shadowed.insert(dir);
    return true;
}

// Makes `target` exist (as a directory or an empty file, like `source`),
// shadowing parents as needed.
bool make_target(const std::string &target, bool as_dir, std::set<std::string> &shadowed,
                 std::string &error)
{
    std::string parent = parent_of(target);
    if (!exists(parent) && !make_target(parent, true, shadowed, error))
        return false;
    if (shadowed.count(parent) == 0 && !shadow_dir(parent, shadowed, error))
        return false;
    if (exists(target) && unlink(target.c_str()) != 0) // a link made by shadow_dir
        return fail(error, "unlink " + target);
    if (as_dir) {
        if (::mkdir(target.c_str(), 0755) != 0)
            return fail(error, "mkdir " + target);
    } else {
        int fd = open(target.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        if (fd < 0)
            return fail(error, "create " + target);
        close(fd);
    }
    return true;
}

} // namespace

bool enter_mount_namespace(const RunOptions &opts, std::string &error)
{
    if (unshare(CLONE_NEWNS) != 0)
        return fail(error, "unshare(CLONE_NEWNS)");
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return fail(error, "make / private");
    std::set<std::string> shadowed;
    for (const auto &[source, target] : opts.mounts) {
        struct stat st;
        if (stat(source.c_str(), &st) != 0)
            return fail(error, "stat " + source);
        struct stat tst;
        bool present = stat(target.c_str(), &tst) == 0;
        if (!present && !make_target(target, S_ISDIR(st.st_mode), shadowed, error))
            return false;
        if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0)
            return fail(error, "bind " + source + " over " + target);
    }
    return true;
}

std::optional<std::string> namespace_unavailable_reason()
{
    static const std::optional<std::string> reason = []() -> std::optional<std::string> {
        int fds[2];
        if (pipe(fds) != 0)
            return std::string("pipe failed");
        pid_t pid = fork();
        if (pid == 0) {
            close(fds[0]);
            const char *what = nullptr;
            if (unshare(CLONE_NEWNS) != 0)
                what = "unshare(CLONE_NEWNS)";
            else if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
                what = "mount --make-rprivate /";
            else if (mount("tmpfs", "/mnt", "tmpfs", 0, nullptr) != 0)
                what = "mount tmpfs";
            if (what != nullptr) {
                std::string msg = std::string(what) + ": " + strerror(errno);
                (void)!write(fds[1], msg.data(), msg.size());
                _exit(1);
            }
            _exit(0);
        }
        close(fds[1]);
        char buf[256];
        ssize_t n = read(fds[0], buf, sizeof buf);
        close(fds[0]);
        int status = 0;
        waitpid(pid, &status, 0);
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
            return std::nullopt;
        return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string("probe failed");
    }();
    return reason;
}

} // namespace tarn_test
