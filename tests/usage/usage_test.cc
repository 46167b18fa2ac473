// Every usage text byte for byte against its file in this directory: these
// texts are what administrators and their scripts read, so they are kept
// here once instead of copied into each command's tests.
#include "sandbox.h"

#include <gtest/gtest.h>

namespace
{

struct Row {
    const char *text;   // file name without ".txt"
    const char *args;   // after "-c CONFIG", split at spaces
    const char *before; // what precedes the text
};

const Row kRows[] = {
    {"frame", "", "No command specified.\n"},
    {"init-dirs", "init-dirs", ""},
    {"set-attr", "set-attr", ""},
    {"upgrade-dirs", "upgrade-dirs x", ""},
    {"nfs", "nfs -h", ""},
    {"pull", "pull -h", ""},
    {"replication", "replication -h", ""},
};

TEST(Usage, EveryTextByteForByte)
{
    tarn_test::Sandbox sb;
    std::string config =
        sb.write_config("tarn.config", {{"root_dir", sb.path("r")}, {"storage.type", "local"}});
    for (const Row &row : kRows) {
        SCOPED_TRACE(row.args);
        std::vector<std::string> argv = {"-c", config};
        for (std::string rest = row.args; !rest.empty();) {
            size_t space = rest.find(' ');
            argv.push_back(rest.substr(0, space));
            rest = space == std::string::npos ? "" : rest.substr(space + 1);
        }
        tarn_test::RunResult r = tarn_test::run_tool(argv);
        EXPECT_EQ(r.status, 255);
        std::string text =
            tarn_test::read_file(TARN_USAGE_DIR "/" + std::string(row.text) + ".txt");
        ASSERT_FALSE(text.empty()) << row.text << ".txt is missing";
        EXPECT_EQ(r.err, row.before + text);
    }
}

} // namespace
