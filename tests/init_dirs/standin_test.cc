// The cluster tool stand-in itself: its refusals, "-R", get-attr output,
// and the log and failure hooks the other tests rely on.
#include "dirs_fixture.h"

namespace
{

using tarn_test::DirsTest;

struct RefusalCase {
    std::vector<std::string> args; // "D" stands for an existing directory
    int status;
    const char *err;
};

class Standin : public DirsTest
{
  protected:
    tarn_test::RunResult quillon(std::vector<std::string> args, std::vector<std::string> env = {})
    {
        for (std::string &a : args) {
            if (a == "D")
                a = sb_.path("d");
        }
        args.insert(args.begin(), "quillon");
        tarn_test::RunOptions o;
        o.path = {QUILLON_SIM_DIR};
        o.env = std::move(env);
        return tarn_test::run(args, o);
    }
};

TEST_F(Standin, RefusesBadCommandLinesWithAMessage)
{
    sb_.mkdir("d");
    const RefusalCase cases[] = {
        {{"-x", "get-attr", "D"}, 2, "quillon: unknown option '-x'\n"},
        {{"set-attr", "-Q", "D", "a=b"}, 2, "quillon: unknown option '-Q'\n"},
        {{"-q", "frob", "D"}, 2, "quillon: unknown command 'frob'\n"},
        {{"set-attr", "D"}, 2, "quillon: usage:"},
        {{"-A"}, 2, "quillon: usage:"},
        {{"set-attr", "D", "tier"}, 2, "quillon: malformed attribute 'tier'\n"},
        {{"set-attr", "D", "=1"}, 2, "quillon: malformed attribute '=1'\n"},
        {{"set-attr", "D", "tier="}, 2, "quillon: malformed attribute 'tier='\n"},
        {{"set-attr", "D", "Tier=1"}, 2, "quillon: malformed attribute 'Tier=1'\n"},
        {{"set-attr", "D", "encoding=5+x"}, 2, "quillon: malformed attribute 'encoding=5+x'\n"},
        {{"set-attr", "D", "replicas=3"}, 2, "quillon: malformed attribute 'replicas=3'\n"},
        {{"set-attr", sb_.path("none"), "tier=1"}, 1, "No such file or directory\n"},
        {{"get-attr", sb_.path("none")}, 1, "No such file or directory\n"},
    };
    for (const RefusalCase &c : cases) {
        auto r = quillon(c.args);
        SCOPED_TRACE(r.err);
        EXPECT_EQ(r.status, c.status);
        EXPECT_NE(r.err.find(c.err), std::string::npos);
        EXPECT_EQ(r.out, "");
    }
    EXPECT_EQ(quillon({"get-attr", "D"}).out, "");
}

TEST_F(Standin, RecursiveSetReachesExistingSubdirectoriesOnly)
{
    sb_.mkdir("d/a/b");
    sb_.write_file("d/a/file", "x");
    ASSERT_EQ(quillon({"-A", "-q", "set-attr", "-R", "D", "tier=2"}).status, 0);
    ASSERT_EQ(quillon({"set-attr", "D", "encoding=3+1/1"}).out,
              sb_.path("d") + ": encoding=3+1/1\n");
    sb_.mkdir("d/c");
    EXPECT_EQ(quillon({"get-attr", "D"}).out, "encoding=3+1/1\ntier=2\n");
    EXPECT_EQ(attrs_of(sb_.path("d/a/b")), (tarn_test::AttrMap{{"tier", "2"}}));
    EXPECT_TRUE(attrs_of(sb_.path("d/c")).empty());
}

TEST_F(Standin, LogsEveryCallAndFailsThoseMatchingThePattern)
{
    sb_.mkdir("d");
    std::vector<std::string> env = {"QUILLON_SIM_LOG=" + sb_.path("quillon.log"),
                                    "QUILLON_SIM_FAIL=*tier=9"};
    EXPECT_EQ(quillon({"-q", "set-attr", "D", "tier=1"}, env).status, 0);
    auto r = quillon({"-q", "set-attr", "D", "tier=9"}, env);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("injected failure"), std::string::npos);
    EXPECT_EQ(quillon({"-x"}, env).status, 2);
    EXPECT_EQ(take_log(),
              (std::vector<std::string>{"-q set-attr " + sb_.path("d") + " tier=1",
                                        "-q set-attr " + sb_.path("d") + " tier=9", "-x"}));
    EXPECT_EQ(attrs_of(sb_.path("d")), (tarn_test::AttrMap{{"tier", "1"}}));
}

} // namespace
