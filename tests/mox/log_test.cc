// Log line heads: the time stamp anywhere but in the journal, where the
// syslog priority replaces it.
#include "mox/log.h"
#include "sandbox.h"

#include <chrono>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <regex>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace
{

// Logs one line per level in a child whose standard error is `path`, with
// JOURNAL_STREAM made by `stream` from that file's device and inode (null:
// unset); returns what the child wrote.
std::string log_in_child(const std::string &path, std::string (*stream)(const struct stat &))
{
    pid_t pid = fork();
    if (pid == 0) {
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        struct stat st;
        if (fd < 0 || dup2(fd, STDERR_FILENO) < 0 || fstat(STDERR_FILENO, &st) != 0)
            _exit(2);
        stream ? setenv("JOURNAL_STREAM", stream(st).c_str(), 1) : unsetenv("JOURNAL_STREAM");
        __mox_log_level = 9;
        for (int level : {0, 1, 2, 3, 6, 7, 9})
            mox_log(level, "level %d", level);
        _exit(0);
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            ADD_FAILURE() << "the logging child did not end within 10 s";
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    return tarn_test::read_file(path);
}

std::string id(const struct stat &st, unsigned long long ino)
{
    return std::to_string(st.st_dev) + ":" + std::to_string(ino);
}

TEST(Log, LineHeadFollowsJournalStream)
{
    const std::string journal = "<3>E level 0\n<4>W level 1\n<6>I level 2\n<5>N level 3\n"
                                "<5>N level 6\n<7>D level 7\n<7>D level 9\n";
    const std::regex stamped("(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} [EWIND] "
                             "level \\d\n){7}");
    struct Row {
        const char *what;
        std::string (*stream)(const struct stat &);
        bool to_journal;
    } rows[] = {
        {"standard error", [](const struct stat &st) { return id(st, st.st_ino); }, true},
        {"another inode", [](const struct stat &st) { return id(st, st.st_ino + 1); }, false},
        {"trailing text", [](const struct stat &st) { return id(st, st.st_ino) + "x"; }, false},
        {"unset", nullptr, false},
    };
    tarn_test::Sandbox sb;
    for (const Row &row : rows) {
        std::string out = log_in_child(sb.path("stderr"), row.stream);
        if (row.to_journal)
            EXPECT_EQ(out, journal) << row.what;
        else
            EXPECT_TRUE(std::regex_match(out, stamped)) << row.what << ":\n" << out;
    }
}

} // namespace
