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
    int live = 0;    // open child handles
    int cursors = 0; // cursors not yet released
    int opens = 0;
} g_stats;

// A handle on one directory Node of a tree.
struct MemDir : ar_io_dir {
    const Node *node;
    size_t pos = 0;
    ar_io_dir_entry cur{};
    explicit MemDir(const Node *n) : node(n) { ops = &kOps; }
    static const ar_io_dir_ops kOps;
};

// Moves `dir` to its entry `pos`: 1 with the cursor there, or how reading ends.
int at(ar_io_dir *dir, size_t pos, ar_io_dir_entry **cursor)
{
    auto *m = static_cast<MemDir *>(dir);
    m->pos = pos;
    if (pos >= m->node->kids.size())
        return m->node->read_rc;
    m->cur = {m->node->kids[pos].name.c_str(), m->node->kids[pos].mode};
    if (cursor) {
        *cursor = &m->cur;
        g_stats.cursors++;
    }
    return 1;
}

const ar_io_dir_ops MemDir::kOps = {
    [](ar_io_dir *dir, ar_io_dir_entry *, ar_io_dir_entry **cursor, int) {
        return at(dir, 0, cursor);
    },
    [](ar_io_dir *dir, ar_io_dir_entry *, int) {
        return at(dir, static_cast<MemDir *>(dir)->pos + 1, nullptr);
    },
    [](ar_io_dir *, ar_io_dir_entry *) { g_stats.cursors--; },
    [](ar_io_dir *dir, const char *name, ar_io_dir **child, int) {
        auto *m = static_cast<MemDir *>(dir);
        for (const Node &k : m->node->kids) {
            if (k.name != name)
                continue;
            if (k.open_rc != 0)
                return k.open_rc;
            g_stats.live++;
            g_stats.opens++;
            *child = new MemDir(&k);
            return 0;
        }
        return -8;
    },
    [](ar_io_dir *dir) {
        g_stats.live--;
        delete static_cast<MemDir *>(dir);
    },
};

// Blocks allocated through the runtime and not yet freed.
size_t live_blocks()
{
    FILE *null = fopen("/dev/null", "w");
    size_t blocks = mox_malloc_debug_report(fileno(null));
    fclose(null);
    return blocks;
}

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
    {"empty", "/acc", 1, d(""), 0, {"/acc"}, 0},
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
    EXPECT_EQ(g_stats.live, 0) << "child handles not released";
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
    Node root = d("");
    for (int i = 0; i < kDepth; i++) {
        Node up = d("", {d("d")});
        up.kids[0].kids = std::move(root.kids);
        root = std::move(up);
    }
    root.kids.push_back(f("f"));
    int rc = 1;
    std::vector<std::string> got = list(root, "/r", 1, &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(g_stats.opens, kDepth);
    ASSERT_EQ(got.size(), kDepth + 3u);
    for (int depth = 0; depth <= kDepth; depth++)
        ASSERT_EQ(got[depth].size(), 2u + 2u * depth) << depth;
    EXPECT_EQ(got[kDepth + 1], "/r/f");
    // Level by level: a destructor nested ten thousand deep overflows the
    // stack of an instrumented build.
    std::vector<Node> pending;
    pending.push_back(std::move(root));
    while (!pending.empty()) {
        Node n = std::move(pending.back());
        pending.pop_back();
        for (Node &k : n.kids)
            pending.push_back(std::move(k));
    }
}

} // namespace
