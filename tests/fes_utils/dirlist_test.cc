// The account file listing over an in-memory directory tree.
#include "co_runner.h"
#include "fes_utils/fes_utils.h"
#include "mox/alloc.h"

#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace
{

const uint32_t kDir = 0x41ed, kReg = 0x81a4, kLink = 0xa1ff, kSock = 0xc1ed;

struct Node {
    std::string name;
    uint32_t mode;
    std::vector<Node> kids;
    int open_rc = 0; // what opening this directory answers
    int read_rc = 0; // what reading it ends with after its entries
};

Node d(const std::string &name, std::vector<Node> kids = {}, int open_rc = 0, int read_rc = 0)
{
    return Node{name, kDir, std::move(kids), open_rc, read_rc};
}

Node f(const std::string &name, uint32_t mode = kReg)
{
    return Node{name, mode, {}, 0, 0};
}

struct Stats {
    int live = 0, cursors = 0, opens = 0; // handles and cursors not released; children opened
} g_stats;

// A handle on one directory Node of a tree, counted while it lives.
struct MemDir : ar_io_dir {
    const Node *node;
    size_t pos = 0;
    ar_io_dir_entry cur{};
    explicit MemDir(const Node *n) : ar_io_dir{&kOps}, node(n) { g_stats.live++; }
    ~MemDir() { g_stats.live--; }
    static MemDir *of(ar_io_dir *dir) { return static_cast<MemDir *>(dir); }
    // Moves to entry `p`: 1 with the cursor there, or how reading ends.
    int at(size_t p)
    {
        if ((pos = p) >= node->kids.size())
            return node->read_rc;
        cur = {node->kids[p].name.c_str(), node->kids[p].mode};
        return 1;
    }
    int next() { return at(pos + 1); }
    static const ar_io_dir_ops kOps;
};

const ar_io_dir_ops MemDir::kOps = {
    [](ar_io_dir *dir, ar_io_dir_entry *, ar_io_dir_entry **cursor, int) {
        g_stats.cursors++;
        *cursor = &MemDir::of(dir)->cur;
        return MemDir::of(dir)->at(0);
    },
    [](ar_io_dir *dir, ar_io_dir_entry *, int) { return MemDir::of(dir)->next(); },
    [](ar_io_dir *, ar_io_dir_entry *) { g_stats.cursors--; },
    [](ar_io_dir *dir, const char *name, ar_io_dir **child, int) {
        for (const Node &k : MemDir::of(dir)->node->kids) {
            if (k.name != name)
                continue;
            g_stats.opens += k.open_rc == 0;
            *child = k.open_rc == 0 ? new MemDir(&k) : nullptr;
            return k.open_rc;
        }
        return -8;
    },
    [](ar_io_dir *dir) { delete MemDir::of(dir); },
};

struct Case {
    const char *what;
    const char *path;
    int recursive;
    Node root;
    int rc;
    std::vector<std::string> want; // paths, before the list's earlier "/old"
    int opens;
    const char *log = nullptr; // a warning it must write
};

// clang-format off
const Case kCases[] = {
    {"order", "/acc", 1,
     d("", {f("1"), d("a", {f("x"), d("b", {d("c", {f("z")}), f("y")}), f("w")}), f("2")}), 0,
     {"/acc", "/acc/1", "/acc/a", "/acc/a/x", "/acc/a/b", "/acc/a/b/c", "/acc/a/b/c/z",
      "/acc/a/b/y", "/acc/a/w", "/acc/2"}, 3},
    {"gateway root", "/", 1, d("", {d("a", {f("b")})}), 0, {"/", "/a", "/a/b"}, 1},
    {"not recursive", "/acc", 0, d("", {d("a", {f("b")}), f("c")}), 0, {"/acc", "/acc/a", "/acc/c"}, 0},
    {"other types left out", "/", 1, d("", {f("l", kLink), d("a", {f("s", kSock), f("r")})}), 0,
     {"/", "/a", "/a/r"}, 1, " W not a directory or a regular file: '//l'\n"},
    {"vanished before opening", "/acc", 1, d("", {d("a", {f("x")}, -8), f("b")}), 0,
     {"/acc", "/acc/a", "/acc/b"}, 0},
    {"vanished while read", "/acc", 1, d("", {d("a", {d("b", {f("x")}, 0, -8), f("y")})}), 0,
     {"/acc", "/acc/a", "/acc/a/b", "/acc/a/y"}, 2},
    {"read error deep", "/acc", 1, d("", {d("a", {d("b", {f("x")}, 0, -5)}), f("c")}), -5, {}, 2},
    {"open error", "/acc", 1, d("", {d("a", {d("b", {}, -13)}), d("c")}), -13, {}, 1},
    {"top read error", "/acc", 1, d("", {f("x")}, 0, -110), -110, {}, 0},
};
// clang-format on

// Lists `root` into a list that already holds a record "/old"; returns the
// paths in list order and checks records, leaks and handles.
std::vector<std::string> list(const Node &root, const char *path, int recursive, int *rc)
{
    std::vector<std::string> paths;
    g_stats = {};
    mox_malloc_debug_enable();
    FILE *null = fopen("/dev/null", "w");
    auto live_blocks = [null] { return mox_malloc_debug_report(fileno(null)); };
    tarn_test::run_in_coroutine([&] {
        Node old = d("");
        MemDir top(&root), prev(&old);
        mox_list out;
        mox_list_init(&out);
        ASSERT_EQ(list_dir_entries(&prev, "/old", 1, &out), 0);
        size_t before = live_blocks();
        *rc = list_dir_entries(&top, path, recursive, &out);
        for (mox_list *l = out.next; l != &out; l = l->next) {
            dirlist_entry *e = dirlist_entry_of(l);
            paths.push_back(e->path);
            EXPECT_STREQ(e->name, e->parent ? strrchr(e->path, '/') + 1 : "");
            ASSERT_EQ(e->depth, e->parent ? e->parent->depth + 1 : 0) << e->path;
        }
        EXPECT_EQ(live_blocks() - before, paths.size() - 1) << "blocks left by the listing";
        free_dirlist_entries(&out);
        EXPECT_EQ(live_blocks(), before - 1);
    });
    fclose(null);
    EXPECT_EQ(g_stats.live, 0) << "handles not released";
    EXPECT_EQ(g_stats.cursors, 0) << "cursors not released";
    return paths;
}

TEST(DirList, Table)
{
    for (const Case &c : kCases) {
        SCOPED_TRACE(c.what);
        int rc = 1;
        testing::internal::CaptureStderr();
        std::vector<std::string> got = list(c.root, c.path, c.recursive, &rc);
        std::string log = testing::internal::GetCapturedStderr();
        std::vector<std::string> want = c.want;
        want.push_back("/old");
        EXPECT_EQ(rc, c.rc);
        EXPECT_EQ(got, want);
        EXPECT_EQ(g_stats.opens, c.opens);
        EXPECT_TRUE(c.log == nullptr || log.find(c.log) != std::string::npos) << log;
    }
}

// Ten thousand levels, far more than nested calls would fit in a coroutine
// stack: still pre-order, and the top's file after the whole chain.
TEST(DirList, DeepChain)
{
    const int kDepth = 10000;
    // Never destroyed: a destructor nested ten thousand deep overflows the
    // stack of an instrumented build.
    static const Node *root = [] {
        auto *top = new Node(d(""));
        for (int i = 0; i < kDepth; i++) {
            Node up = d("", {d("d")});
            up.kids[0].kids = std::move(top->kids);
            *top = std::move(up);
        }
        top->kids.push_back(f("f"));
        return top;
    }();
    int rc = 1;
    std::vector<std::string> got = list(*root, "/r", 1, &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(g_stats.opens, kDepth);
    ASSERT_EQ(got.size(), kDepth + 3u);
    for (int depth = 0; depth <= kDepth; depth++)
        ASSERT_EQ(got[depth].size(), 2u + 2u * depth) << depth;
    EXPECT_EQ(got[kDepth + 1], "/r/f");
}

} // namespace
