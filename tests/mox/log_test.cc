// Log line heads: the time stamp on a terminal, a pipe or a file, and the
// syslog priority when standard error is the journal's stream.
#include "mox/log.h"
#include "sandbox.h"

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <regex>
#include <signal.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace
{

enum class Stream { Journal, OtherInode, Garbage, Unset };

// Logs one line per level in a child whose standard error is `path`, with
// JOURNAL_STREAM as `stream` says; returns what the child wrote.
std::string log_in_child(const std::string &path, Stream stream)
{
    pid_t pid = fork();
    if (pid == 0) {
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        struct stat st;
        if (fd < 0 || dup2(fd, STDERR_FILENO) < 0 || fstat(STDERR_FILENO, &st) != 0)
            _exit(2);
        std::string value = std::to_string(st.st_dev) + ":" +
                            std::to_string(st.st_ino + (stream == Stream::OtherInode ? 1 : 0));
        if (stream == Stream::Garbage)
            value = std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino) + "x";
        if (stream == Stream::Unset)
            unsetenv("JOURNAL_STREAM");
        else
            setenv("JOURNAL_STREAM", value.c_str(), 1);
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
            return "";
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    return tarn_test::read_file(path);
}

TEST(Log, LineHeadFollowsJournalStream)
{
    const std::string journal = "<3>E level 0\n<4>W level 1\n<6>I level 2\n<5>N level 3\n"
                                "<5>N level 6\n<7>D level 7\n<7>D level 9\n";
    const std::regex stamped("(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} [EWIND] "
                             "level \\d\n){7}");
    struct Row {
        Stream stream;
        bool to_journal;
    } rows[] = {{Stream::Journal, true},
                {Stream::OtherInode, false},
                {Stream::Garbage, false},
                {Stream::Unset, false}};
    tarn_test::Sandbox sb;
    for (const Row &row : rows) {
        SCOPED_TRACE(static_cast<int>(row.stream));
        std::string out = log_in_child(sb.path("stderr"), row.stream);
        if (row.to_journal)
            EXPECT_EQ(out, journal);
        else
            EXPECT_TRUE(std::regex_match(out, stamped)) << out;
    }
}

} // namespace
