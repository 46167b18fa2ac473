// Runs a program with a time limit and collects its output.
#include "sandbox.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tarn_test
{

namespace
{

// The inherited environment with `opts` applied, as "NAME=value" strings.
std::vector<std::string> build_env(const RunOptions &opts)
{
    std::vector<std::string> set = opts.env, out;
    if (!opts.path.empty()) {
        std::string path = "PATH=";
        for (const auto &p : opts.path)
            path += p + ":";
        const char *old = getenv("PATH");
        set.push_back(path + (old ? old : "/usr/bin:/bin"));
    }
    for (char **e = environ; *e != nullptr; ++e) {
        std::string name = std::string(*e).substr(0, strcspn(*e, "=") + 1);
        if (std::none_of(set.begin(), set.end(), [&](auto &s) { return s.starts_with(name); }))
            out.push_back(*e);
    }
    out.insert(out.end(), set.begin(), set.end());
    return out;
}

std::vector<char *> c_vector(std::vector<std::string> &v)
{
    std::vector<char *> out;
    for (auto &s : v)
        out.push_back(s.data());
    out.push_back(nullptr);
    return out;
}

[[noreturn]] void child_fail(const std::string &what)
{
    std::string msg = "test runner: " + what + "\n";
    (void)!write(2, msg.data(), msg.size());
    _exit(127);
}

std::string read_all(int fd)
{
    std::string s;
    char buf[65536];
    for (ssize_t n; (n = pread(fd, buf, sizeof buf, off_t(s.size()))) > 0;)
        s.append(buf, size_t(n));
    close(fd);
    return s;
}

} // namespace

RunResult run(const std::vector<std::string> &argv_in, const RunOptions &opts)
{
    RunResult result;
    // Output goes to memory files: nothing to drain while the program runs.
    int out = memfd_create("out", MFD_CLOEXEC), err = memfd_create("err", MFD_CLOEXEC);
    // Everything the child needs is built before fork: allocation after fork
    // is not safe in a process that may have threads.
    std::vector<std::string> argv = argv_in, env = build_env(opts);
    std::vector<char *> cargv = c_vector(argv), cenv = c_vector(env);
    pid_t pid = fork();
    if (pid == 0) {
        int in = open("/dev/null", O_RDONLY); // an empty standard input
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        setpgid(0, 0);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        std::string error;
        if ((opts.in_namespace || !opts.mounts.empty()) && !enter_mount_namespace(opts, error))
            child_fail(error);
        if (!opts.cwd.empty() && chdir(opts.cwd.c_str()) != 0)
            child_fail("chdir " + opts.cwd + ": " + strerror(errno));
        environ = cenv.data();
        execvp(cargv[0], cargv.data());
        child_fail(std::string("exec ") + cargv[0] + ": " + strerror(errno));
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(opts.timeout_ms);
    bool signals_due = !opts.signals.empty();
    int status = 0;
    while (pid > 0 && waitpid(pid, &status, WNOHANG) == 0) {
        // Signals go once their file holds its text, 0.2 s apart so that a
        // second of the same kind is not merged into a pending first.
        if (signals_due &&
            read_file(opts.signal_file).find(opts.signal_text) != std::string::npos &&
            access(opts.signal_file.c_str(), F_OK) == 0) {
            for (size_t i = 0; i < opts.signals.size(); ++i)
                kill(pid, opts.signals[i]), usleep(i + 1 < opts.signals.size() ? 200000 : 0);
            signals_due = false;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            result.timed_out = true;
            kill(-pid, SIGKILL);
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            break;
        }
        usleep(5000);
    }
    result.out = read_all(out);
    result.err = read_all(err);
    if (pid > 0 && WIFEXITED(status))
        result.status = WEXITSTATUS(status);
    else if (pid > 0 && WIFSIGNALED(status))
        result.status = 128 + WTERMSIG(status);
    return result;
}

} // namespace tarn_test
