// Runs a program with a time limit and collects its output.
#include "sandbox.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tarn_test
{

// Defined in mount_namespace.cc: runs in the child, before exec.
bool enter_mount_namespace(const RunOptions &opts, std::string &error);

namespace
{

std::vector<std::string> build_env(const RunOptions &opts)
{
    std::map<std::string, std::string> env;
    for (char **e = environ; *e != nullptr; ++e) {
        std::string s(*e);
        size_t eq = s.find('=');
        if (eq != std::string::npos)
            env[s.substr(0, eq)] = s.substr(eq + 1);
    }
    for (const auto &s : opts.env) {
        size_t eq = s.find('=');
        if (eq != std::string::npos)
            env[s.substr(0, eq)] = s.substr(eq + 1);
    }
    if (!opts.path.empty()) {
        std::string path;
        for (const auto &p : opts.path)
            path += p + ":";
        auto it = env.find("PATH");
        path += it != env.end() ? it->second : "/usr/bin:/bin";
        env["PATH"] = path;
    }
    std::vector<std::string> out;
    for (const auto &[k, v] : env)
        out.push_back(k + "=" + v);
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

// Sends the planned signals once their file holds its text; true when done.
bool send_signals_if_due(const RunOptions &opts, pid_t pid)
{
    if (read_file(opts.signal_file).find(opts.signal_text) == std::string::npos ||
        access(opts.signal_file.c_str(), F_OK) != 0)
        return false;
    for (size_t i = 0; i < opts.signals.size(); ++i) {
        // Apart, so that a second signal of the same kind is not merged
        // into the first while that one is still pending.
        if (i > 0)
            usleep(200000);
        kill(pid, opts.signals[i]);
    }
    return true;
}

[[noreturn]] void child_fail(int fd, const std::string &what)
{
    std::string msg = "test runner: " + what + "\n";
    (void)!write(fd, msg.data(), msg.size());
    _exit(127);
}

} // namespace

RunResult run(const std::vector<std::string> &argv_in, const RunOptions &opts)
{
    RunResult result;
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
        return result;
    // Everything the child needs is built before fork: allocation after fork
    // is not safe in a process that may have threads.
    std::vector<std::string> argv = argv_in;
    std::vector<std::string> env = build_env(opts);
    std::vector<char *> cargv = c_vector(argv);
    std::vector<char *> cenv = c_vector(env);

    pid_t pid = fork();
    if (pid == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        setpgid(0, 0);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        if (opts.in_namespace || !opts.mounts.empty()) {
            std::string error;
            if (!enter_mount_namespace(opts, error))
                child_fail(2, error);
        }
        if (!opts.cwd.empty() && chdir(opts.cwd.c_str()) != 0)
            child_fail(2, "chdir " + opts.cwd + ": " + strerror(errno));
        environ = cenv.data();
        execvp(cargv[0], cargv.data());
        child_fail(2, std::string("exec ") + cargv[0] + ": " + strerror(errno));
    }
    // The program reads an empty standard input.
    close(in[0]);
    close(in[1]);
    close(out[1]);
    close(err[1]);
    if (pid < 0) {
        close(out[0]);
        close(err[0]);
        return result;
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(opts.timeout_ms);
    int open_fds = 2;
    bool signals_due = !opts.signals.empty();
    while (open_fds > 0) {
        if (signals_due && send_signals_if_due(opts, pid))
            signals_due = false;
        pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        if (left <= 0) {
            result.timed_out = true;
            kill(-pid, SIGKILL);
            kill(pid, SIGKILL);
            break;
        }
        if (signals_due)
            left = std::min<long>(left, 10); // look at the file again soon
        int n = poll(fds, 2, static_cast<int>(left));
        if (n < 0 && errno != EINTR)
            break;
        char buf[65536];
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0)
                continue;
            ssize_t r = read(fds[i].fd, buf, sizeof buf);
            if (r > 0) {
                (i == 0 ? result.out : result.err).append(buf, static_cast<size_t>(r));
            } else if (r == 0 || errno != EINTR) {
                close(i == 0 ? out[0] : err[0]);
                (i == 0 ? out[0] : err[0]) = -1;
                --open_fds;
            }
        }
    }
    for (int fd : {out[0], err[0]}) {
        if (fd >= 0)
            close(fd);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status))
        result.status = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        result.status = 128 + WTERMSIG(status);
    return result;
}

} // namespace tarn_test
