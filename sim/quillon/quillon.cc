// Stand-in for the cluster's command-line tool, for tests and the demo.
// Attributes live in extended attributes "user.quillon.<name>" of each
// directory, so a directory holding only attributes is still empty.
//
//   quillon [-A] [-q] set-attr [-R] PATH NAME=VALUE
//   quillon [-A] [-q] get-attr PATH
//
// QUILLON_SIM_LOG names a file that receives one line per invocation (the
// arguments joined by blanks); QUILLON_SIM_FAIL is a glob: an invocation
// whose line matches it fails with exit code 1 before doing anything;
// QUILLON_SIM_DELAY_MS makes an invocation whose line matches the glob
// QUILLON_SIM_DELAY_ON (every one when unset) sleep that long after logging.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fnmatch.h>
#include <ftw.h>
#include <string>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace
{

const char kPrefix[] = "user.quillon.";

struct options {
    bool quiet = false;
    bool recursive = false;
};

int fail(int code, const std::string &msg)
{
    fprintf(stderr, "quillon: %s\n", msg.c_str());
    return code;
}

std::string joined(int argc, char **argv)
{
    std::string line;
    for (int i = 1; i < argc; i++) {
        if (i > 1)
            line += ' ';
        line += argv[i];
    }
    return line;
}

void log_invocation(const std::string &line)
{
    const char *log = getenv("QUILLON_SIM_LOG");
    if (log == nullptr || *log == '\0')
        return;
    int fd = open(log, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0)
        return;
    std::string rec = line + "\n";
    (void)!write(fd, rec.data(), rec.size());
    close(fd);
}

bool valid_name(const std::string &name)
{
    if (name.empty())
        return false;
    return std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
    });
}

// The redundancy attributes are checked the way the cluster reads them.
bool valid_value(const std::string &name, const std::string &value)
{
    unsigned a, b, c;
    char end;
    if (value.empty())
        return false;
    if (name == "encoding")
        return sscanf(value.c_str(), "%u+%u/%u%c", &a, &b, &c, &end) == 3 ||
               sscanf(value.c_str(), "%u+%u%c", &a, &b, &end) == 2;
    if (name == "replicas")
        return sscanf(value.c_str(), "%u:%u%c", &a, &b, &end) == 2;
    return true;
}

std::string g_key;
std::string g_value;
int g_errno;

int set_one(const char *path, const struct stat *st, int type, struct FTW *)
{
    if (type != FTW_D || !S_ISDIR(st->st_mode))
        return 0;
    if (setxattr(path, g_key.c_str(), g_value.data(), g_value.size(), 0) != 0) {
        g_errno = errno;
        return 1;
    }
    return 0;
}

int set_attr(const options &o, const char *path, const char *attr)
{
    const char *eq = strchr(attr, '=');
    std::string name = eq ? std::string(attr, eq) : std::string();
    if (eq == nullptr || !valid_name(name) || !valid_value(name, eq + 1))
        return fail(2, std::string("malformed attribute '") + attr + "'");
    struct stat st;
    if (stat(path, &st) != 0)
        return fail(1, std::string("cannot access '") + path + "': " + strerror(errno));
    if (!S_ISDIR(st.st_mode))
        return fail(1, std::string("'") + path + "' is not a directory");
    g_key = kPrefix + name;
    g_value = eq + 1;
    int rc = o.recursive ? nftw(path, set_one, 16, FTW_PHYS) : set_one(path, &st, FTW_D, nullptr);
    if (rc != 0)
        return fail(1, std::string("cannot set '") + attr + "' on '" + path +
                           "': " + strerror(g_errno));
    if (!o.quiet)
        printf("%s: %s\n", path, attr);
    return 0;
}

int get_attr(const char *path)
{
    ssize_t size = listxattr(path, nullptr, 0);
    if (size < 0)
        return fail(1, std::string("cannot access '") + path + "': " + strerror(errno));
    std::vector<char> names(size + 1);
    size = listxattr(path, names.data(), size);
    if (size < 0)
        return fail(1, std::string("cannot access '") + path + "': " + strerror(errno));
    std::vector<std::string> lines;
    for (const char *k = names.data(); k < names.data() + size; k += strlen(k) + 1) {
        if (strncmp(k, kPrefix, sizeof kPrefix - 1) != 0)
            continue;
        char value[4096];
        ssize_t n = getxattr(path, k, value, sizeof value);
        if (n >= 0)
            lines.push_back(std::string(k + sizeof kPrefix - 1) + "=" + std::string(value, n));
    }
    std::sort(lines.begin(), lines.end());
    for (const std::string &l : lines)
        printf("%s\n", l.c_str());
    return 0;
}

int usage()
{
    return fail(2, "usage: quillon [-A] [-q] set-attr [-R] PATH NAME=VALUE\n"
                   "       quillon [-A] [-q] get-attr PATH");
}

} // namespace

namespace
{

bool matches_env_glob(const char *name, const std::string &line, bool unset_matches)
{
    const char *pattern = getenv(name);
    if (pattern == nullptr || *pattern == '\0')
        return unset_matches;
    return fnmatch(pattern, line.c_str(), 0) == 0;
}

void delay_if_told(const std::string &line)
{
    const char *ms = getenv("QUILLON_SIM_DELAY_MS");
    if (ms == nullptr || *ms == '\0' || !matches_env_glob("QUILLON_SIM_DELAY_ON", line, true))
        return;
    long total = strtol(ms, nullptr, 10);
    timespec left = {total / 1000, (total % 1000) * 1000000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

} // namespace

int main(int argc, char **argv)
{
    std::string line = joined(argc, argv);
    log_invocation(line);
    delay_if_told(line);
    if (matches_env_glob("QUILLON_SIM_FAIL", line, false))
        return fail(1, "injected failure for '" + line + "'");
    options o;
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; i++) {
        if (strcmp(argv[i], "-A") == 0)
            continue;
        if (strcmp(argv[i], "-q") == 0)
            o.quiet = true;
        else
            return fail(2, std::string("unknown option '") + argv[i] + "'");
    }
    if (i == argc)
        return usage();
    const char *command = argv[i++];
    if (strcmp(command, "get-attr") == 0)
        return argc - i == 1 ? get_attr(argv[i]) : usage();
    if (strcmp(command, "set-attr") != 0)
        return fail(2, std::string("unknown command '") + command + "'");
    if (i < argc && argv[i][0] == '-') {
        if (strcmp(argv[i], "-R") != 0)
            return fail(2, std::string("unknown option '") + argv[i] + "'");
        o.recursive = true;
        i++;
    }
    return argc - i == 2 ? set_attr(o, argv[i], argv[i + 1]) : usage();
}
