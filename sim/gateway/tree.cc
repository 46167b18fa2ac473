// The simulator's view of its data directory. Symbolic links are entries
// of their own, never a way out of the tree: a path through a link does not
// exist, and a link at the end of a path is neither a file nor a directory.
#include "ember/protocol.hpp"
#include "ops.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace p = ember_proto;

namespace gwsim
{
namespace
{

// Makes the missing directory `local` (0700); true when a directory, not a
// link, is there afterwards.
bool is_dir_or_made(const std::string &local, bool make)
{
    struct stat sb;
    if (lstat(local.c_str(), &sb) != 0) {
        if (errno != ENOENT || !make || (mkdir(local.c_str(), 0700) != 0 && errno != EEXIST) ||
            lstat(local.c_str(), &sb) != 0)
            return false;
    }
    return S_ISDIR(sb.st_mode);
}

} // namespace

bool path_syntax_ok(const std::string &path)
{
    if (path.empty() || path[0] != '/' || path.find('\0') != std::string::npos)
        return false;
    if (path == "/")
        return true;
    for (size_t i = 1; i <= path.size();) {
        size_t j = std::min(path.find('/', i), path.size());
        std::string_view part(path.data() + i, j - i);
        if (part.empty() || part == "." || part == "..")
            return false;
        i = j + 1;
    }
    return true;
}

int resolve_path(const state &st, const std::string &path, std::string &local, bool make_parents)
{
    if (!path_syntax_ok(path))
        return p::err_inval;
    local = st.root;
    if (path == "/") {
        local += "/."; // the data directory itself may be reached through a link
        return 0;
    }
    size_t last = path.rfind('/');
    for (size_t i = 1; i < last;) {
        size_t j = path.find('/', i);
        if (!is_dir_or_made(st.root + path.substr(0, j), make_parents))
            return p::err_noent;
        i = j + 1;
    }
    local += path;
    return 0;
}

bool is_regular(const std::string &local)
{
    struct stat sb;
    return lstat(local.c_str(), &sb) == 0 && S_ISREG(sb.st_mode);
}

int open_dir(const std::string &local, DIR **out)
{
    int fd = open(local.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return errno == ENOTDIR || errno == ELOOP ? p::err_notdir : p::err_noent;
    *out = fdopendir(fd);
    if (!*out) {
        close(fd);
        return p::err_io;
    }
    return 0;
}

} // namespace gwsim
