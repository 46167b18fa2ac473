// Chunked file transfer between simulated gateways.
#include "transfer.h"

#include "ember/protocol.hpp"

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

std::string temp_name(const std::string &local)
{
    size_t slash = local.rfind('/');
    std::string out = local.substr(0, slash + 1);
    out += ".tmp.";
    out += local.substr(slash + 1);
    out += ".recv.xml";
    return out;
}

void make_parents(const std::string &local)
{
    for (size_t i = local.find('/', 1); i != std::string::npos; i = local.find('/', i + 1))
        mkdir(local.substr(0, i).c_str(), 0700);
}

bool write_all(int fd, const std::string &data, uint64_t offset)
{
    for (size_t done = 0; done < data.size();) {
        ssize_t n =
            pwrite(fd, data.data() + done, data.size() - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// Opens the temporary file for the chunk at `offset`: a fresh one at 0,
// else the one that ends exactly there. 0, 30 or 80.
int open_temp(const std::string &local, const std::string &tmp, uint64_t offset, int &fd)
{
    if (offset == 0) {
        make_parents(local);
        unlink(tmp.c_str());
        fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        return fd < 0 ? p::err_io : 0;
    }
    fd = open(tmp.c_str(), O_WRONLY | O_CLOEXEC);
    struct stat sb;
    if (fd >= 0 && fstat(fd, &sb) == 0 && static_cast<uint64_t>(sb.st_size) == offset)
        return 0;
    if (fd >= 0)
        close(fd);
    return p::err_inval; // out of order, or another transfer restarted the file
}

} // namespace

int transfer_file(const chunk_source &from, const chunk_sink &to)
{
    uint64_t offset = 0, size = 0;
    std::string data;
    do {
        uint64_t now = 0;
        if (int rc = from(offset, data, now); rc != 0)
            return rc;
        if (offset == 0)
            size = now;
        if (now != size || (data.empty() && offset < size) || offset + data.size() > size)
            return p::err_io;
        if (int rc = to(offset, data, size); rc != 0)
            return rc;
        offset += data.size();
    } while (offset < size);
    return 0;
}

int read_chunk(const std::string &local, uint64_t offset, uint64_t length, std::string &data,
               uint64_t &size)
{
    int fd = open(local.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0)
        return errno == ENOENT || errno == ELOOP ? p::err_noent : p::err_io;
    struct stat sb;
    int rc = fstat(fd, &sb) != 0 ? p::err_io : !S_ISREG(sb.st_mode) ? p::err_noent : 0;
    size = rc == 0 ? static_cast<uint64_t>(sb.st_size) : 0;
    uint64_t left = offset < size ? size - offset : 0;
    data.resize(std::min<uint64_t>({length, p::peer_chunk_max, left}));
    for (size_t done = 0; rc == 0 && done < data.size();) {
        ssize_t n =
            pread(fd, data.data() + done, data.size() - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            rc = p::err_io; // an error, or the file shrank meanwhile
        else
            done += static_cast<size_t>(n);
    }
    close(fd);
    return rc;
}

int write_chunk(const std::string &local, uint64_t offset, const std::string &data, uint64_t size)
{
    if (offset + data.size() > size)
        return p::err_inval;
    std::string tmp = temp_name(local);
    int fd = -1;
    if (int rc = open_temp(local, tmp, offset, fd); rc != 0) {
        unlink(tmp.c_str());
        return rc;
    }
    bool last = offset + data.size() == size;
    bool ok = write_all(fd, data, offset);
    ok = ok && (!last || fsync(fd) == 0);
    ok = close(fd) == 0 && ok;
    ok = ok && (!last || rename(tmp.c_str(), local.c_str()) == 0);
    if (!ok) {
        unlink(tmp.c_str());
        return p::err_io;
    }
    return 0;
}

} // namespace gwsim
