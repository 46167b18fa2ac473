// The keepalive registry on the real event loop. Timeouts are short and
// every wait for a release is bounded far above them; assertions check
// order and lower bounds, never how quickly something happened.
#include "co_runner.h"
#include "mox/mox.h"
#include "utils/keepalive.h"
#include "utils/mox_helpers.h"

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

using tarn_test::run_in_coroutine;

namespace
{

struct Item;

struct Recorder {
    std::string events; // "+A" on activation, "-A" on release
    std::vector<uint64_t> release_loop_ms;
    std::function<void(Item *)> on_release_hook;
};

struct Item {
    keepalive_entry entry; // standard layout keeps mox_container_of well defined
    char name;
    Recorder *rec;
    int releases = 0;
    uint64_t released_at_ms = 0; // the clock when released
    uint64_t last_mark_ms = 0;   // last_access_ms seen at release

    Item(char n, Recorder *r, keepalive_list *list) : name(n), rec(r)
    {
        keepalive_init(&entry, list);
    }
    // An assertion that fails half-way must not leave a dead entry linked.
    ~Item() { keepalive_del(&entry); }
    void mark() { keepalive_mark_accessed(&entry); }
};

void on_activate(keepalive_entry *e)
{
    Item *it = mox_container_of(e, Item, entry);
    it->rec->events += std::string("+") + it->name;
}

void on_release(keepalive_entry *e)
{
    Item *it = mox_container_of(e, Item, entry);
    EXPECT_EQ(e->link.next, &e->link) << it->name << " released while still linked";
    ++it->releases;
    it->released_at_ms = get_abs_time_us() / 1000;
    it->last_mark_ms = e->last_access_ms;
    it->rec->events += std::string("-") + it->name;
    it->rec->release_loop_ms.push_back(mox_loop_now_ms(mox_current_loop()));
    if (it->rec->on_release_hook)
        it->rec->on_release_hook(it);
}

// Sleeps in small steps until `done` holds or ten seconds have passed.
bool wait_until(const std::function<bool()> &done)
{
    for (int i = 0; i < 2000 && !done(); ++i)
        mox_co_sleep(5);
    return done();
}

mox_co *start(keepalive_list *list, int32_t timeout_ms, mox_context *ctx = nullptr)
{
    return keepalive_list_init(list, timeout_ms, "reg", on_activate, on_release, ctx);
}

// Runs `body` in a coroutine with a running registry, then stops it.
void with_registry(int32_t timeout_ms, const std::function<void(keepalive_list *)> &body)
{
    run_in_coroutine([&] {
        keepalive_list list{};
        start(&list, timeout_ms);
        body(&list);
        keepalive_list_fini(&list);
        EXPECT_EQ(list.co, nullptr);
        EXPECT_NE(list.flags & KEEPALIVE_STOPPING, 0);
        EXPECT_TRUE(mox_list_empty(&list.entries));
    });
}

TEST(Keepalive, ReleaseAfterTheTimeoutAgainAfterTheNextMarkAndOnDel)
{
    Recorder rec;
    run_in_coroutine([&] {
        mox_context *ctx = mox_context_set_id(mox_context_alloc(), "gw/");
        keepalive_list list{};
        mox_co *co = start(&list, 50, ctx);
        mox_context_put(ctx);
        EXPECT_EQ(list.co, co);
        EXPECT_STREQ(mox_co_get_name(co), "gw/keepalive_reg");
        Item a('A', &rec, &list), b('B', &rec, &list);
        for (int round = 1; round <= 2; ++round) {
            a.mark();
            uint64_t marked = a.entry.last_access_ms;
            ASSERT_TRUE(wait_until([&] { return a.releases == round; }));
            EXPECT_GE(a.released_at_ms, marked + 50);
        }
        mox_co_sleep(120);       // no second release of an entry that is not held
        keepalive_del(&b.entry); // never held: nothing happens
        b.mark();
        keepalive_del(&b.entry);
        keepalive_del(&b.entry);
        keepalive_list_fini(&list);
        EXPECT_EQ(list.co, nullptr);
        mox_co_join(co); // already ended
    });
    EXPECT_EQ(rec.events, "+A-A+A-A+B-B");
}

TEST(Keepalive, MarkBeforeTheTimeoutMovesTheDeadline)
{
    Recorder rec;
    with_registry(600, [&](keepalive_list *list) {
        Item a('A', &rec, list);
        a.mark();
        mox_co_sleep(60);
        a.mark();
        uint64_t second = a.entry.last_access_ms;
        ASSERT_TRUE(wait_until([&] { return a.releases > 0; }));
        EXPECT_EQ(a.last_mark_ms, second);
        EXPECT_GE(a.released_at_ms, second + 600);
    });
    EXPECT_EQ(rec.events, "+A-A");
}

TEST(Keepalive, DueEntriesAreReleasedOldestFirstInOnePass)
{
    Recorder rec;
    with_registry(50, [&](keepalive_list *list) {
        Item a('A', &rec, list), b('B', &rec, list), c('C', &rec, list);
        for (Item *it : {&c, &a, &b, &c}) { // the last mark moves C behind B
            it->mark();
            mox_co_sleep(10);
        }
        // Hold the loop until all three are due, so that the registry finds
        // them together on its next look.
        usleep(200 * 1000);
        ASSERT_TRUE(wait_until([&] { return rec.release_loop_ms.size() == 3; }));
        EXPECT_EQ(rec.release_loop_ms[0], rec.release_loop_ms[2]) << "the registry slept between";
    });
    EXPECT_EQ(rec.events, "+C+A+B-A-B-C");
}

TEST(Keepalive, FiniReleasesEverythingOldestFirstBeforeItReturns)
{
    Recorder rec;
    bool fini_returned = false;
    rec.on_release_hook = [&](Item *) { EXPECT_FALSE(fini_returned); };
    run_in_coroutine([&] {
        keepalive_list list{};
        start(&list, 60000);
        Item a('A', &rec, &list), b('B', &rec, &list), c('C', &rec, &list);
        for (Item *it : {&a, &b, &c, &a})
            it->mark();
        mox_co_sleep(10); // the registry is asleep in its wait queue now
        keepalive_list_fini(&list);
        fini_returned = true;
        keepalive_del(&b.entry); // released entries stay released
    });
    EXPECT_EQ(rec.events, "+A+B+C-B-C-A");
}

TEST(Keepalive, ReleaseCallbacksMaySuspendOrDeleteOtherEntries)
{
    // A's release suspends while fini comes; C's deletes D.
    Recorder rec;
    bool in_hook = false;
    Item *victim = nullptr;
    rec.on_release_hook = [&](Item *it) {
        if (it->name == 'C')
            keepalive_del(&victim->entry);
        if (it->name != 'A')
            return;
        in_hook = true;
        mox_co_sleep(50);
        in_hook = false;
    };
    run_in_coroutine([&] {
        keepalive_list list{};
        start(&list, 30);
        Item a('A', &rec, &list), b('B', &rec, &list), c('C', &rec, &list), d('D', &rec, &list);
        victim = &d;
        c.mark();
        d.mark();
        ASSERT_TRUE(wait_until([&] { return c.releases == 1; }));
        EXPECT_EQ(d.releases, 1);
        a.mark();
        ASSERT_TRUE(wait_until([&] { return in_hook; }));
        b.mark(); // still allowed: not stopping yet
        keepalive_list_fini(&list);
        EXPECT_EQ(list.co, nullptr);
    });
    EXPECT_FALSE(in_hook);
    EXPECT_EQ(rec.events, "+C+D-C-D+A-A+B-B");
}

TEST(KeepaliveDeathTest, MisuseIsReportedAsABug)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Recorder rec;
    auto with_deadline = [] {
        mox_context *ctx = mox_context_alloc();
        mox_context_set_timeout(ctx, 60000);
        return ctx;
    };
    struct Row {
        std::function<void(keepalive_list *)> misuse;
        const char *regex;
    } rows[] = {
        {[](keepalive_list *l) { start(l, 0); },
         "registry 'reg' needs a positive timeout, got 0 ms(.|\n)*in keepalive_list_init"},
        {[](keepalive_list *l) { start(l, -5); }, "got -5 ms(.|\n)*in keepalive_list_init"},
        {[&](keepalive_list *l) { start(l, 100, with_deadline()); },
         "cannot run in a context with a deadline(.|\n)*in keepalive_list_init"},
        {[&](keepalive_list *l) {
             start(l, 100);
             Item a('A', &rec, l);
             keepalive_list_fini(l);
             a.mark();
         },
         "in keepalive_mark_accessed"},
        {[](keepalive_list *l) {
             start(l, 100);
             keepalive_list_fini(l);
             keepalive_list_fini(l);
         },
         "in keepalive_list_fini"},
    };
    for (const Row &r : rows) {
        EXPECT_DEATH(run_in_coroutine([&] {
                         keepalive_list list{};
                         r.misuse(&list);
                     }),
                     r.regex);
    }
}

} // namespace
