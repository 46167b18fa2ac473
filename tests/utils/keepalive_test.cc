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
    int activations = 0;
    int releases = 0;
    uint64_t released_at_ms = 0; // the clock when released
    uint64_t last_mark_ms = 0;   // last_access_ms seen at release
    Recorder *rec;

    Item(char n, Recorder *r, keepalive_list *list) : name(n), rec(r)
    {
        keepalive_init(&entry, list);
    }
    // An assertion that fails half-way must not leave a dead entry linked.
    ~Item() { keepalive_del(&entry); }
    Item(const Item &) = delete;
    Item &operator=(const Item &) = delete;
};

Item *item_of(keepalive_entry *e)
{
    return mox_container_of(e, Item, entry);
}

void on_activate(keepalive_entry *e)
{
    Item *it = item_of(e);
    ++it->activations;
    it->rec->events += std::string("+") + it->name;
}

void on_release(keepalive_entry *e)
{
    Item *it = item_of(e);
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
    });
}

TEST(Keepalive, MarkedEntryIsReleasedAfterTheTimeout)
{
    Recorder rec;
    run_in_coroutine([&] {
        mox_context *ctx = mox_context_set_id(mox_context_alloc(), "gw/");
        keepalive_list list{};
        mox_co *co = start(&list, 50, ctx);
        mox_context_put(ctx);
        EXPECT_EQ(list.co, co);
        EXPECT_STREQ(mox_co_get_name(co), "gw/keepalive_reg");

        Item a('A', &rec, &list);
        keepalive_mark_accessed(&a.entry);
        uint64_t marked = a.entry.last_access_ms;
        EXPECT_EQ(a.activations, 1);
        ASSERT_TRUE(wait_until([&] { return a.releases > 0; }));
        EXPECT_GE(a.released_at_ms, marked + 50);
        mox_co_sleep(120); // no second release of an entry that is not held
        keepalive_list_fini(&list);
        EXPECT_EQ(list.co, nullptr);
    });
    EXPECT_EQ(rec.events, "+A-A");
}

TEST(Keepalive, MarkBeforeTheTimeoutMovesTheDeadline)
{
    Recorder rec;
    with_registry(600, [&](keepalive_list *list) {
        Item a('A', &rec, list);
        keepalive_mark_accessed(&a.entry);
        mox_co_sleep(60);
        keepalive_mark_accessed(&a.entry);
        uint64_t second = a.entry.last_access_ms;
        ASSERT_TRUE(wait_until([&] { return a.releases > 0; }));
        EXPECT_EQ(a.activations, 1) << "released before the second mark";
        EXPECT_EQ(a.last_mark_ms, second);
        EXPECT_GE(a.released_at_ms, second + 600);
    });
    EXPECT_EQ(rec.events, "+A-A");
}

TEST(Keepalive, ReleasedEntryIsActivatedAgainByTheNextMark)
{
    Recorder rec;
    with_registry(30, [&](keepalive_list *list) {
        Item a('A', &rec, list);
        keepalive_mark_accessed(&a.entry);
        ASSERT_TRUE(wait_until([&] { return a.releases == 1; }));
        keepalive_mark_accessed(&a.entry);
        EXPECT_EQ(a.activations, 2);
        ASSERT_TRUE(wait_until([&] { return a.releases == 2; }));
    });
    EXPECT_EQ(rec.events, "+A-A+A-A");
}

TEST(Keepalive, DelReleasesOnlyHeldEntries)
{
    Recorder rec;
    with_registry(30, [&](keepalive_list *list) {
        Item a('A', &rec, list);
        keepalive_del(&a.entry); // never held: nothing happens
        EXPECT_EQ(rec.events, "");
        keepalive_mark_accessed(&a.entry);
        keepalive_del(&a.entry);
        keepalive_del(&a.entry);
        EXPECT_EQ(rec.events, "+A-A");
        mox_co_sleep(100); // the timeout passes without a second release
    });
    EXPECT_EQ(rec.events, "+A-A");
}

TEST(Keepalive, DueEntriesAreReleasedOldestFirstInOnePass)
{
    Recorder rec;
    with_registry(50, [&](keepalive_list *list) {
        Item a('A', &rec, list);
        Item b('B', &rec, list);
        Item c('C', &rec, list);
        keepalive_mark_accessed(&c.entry);
        mox_co_sleep(10);
        keepalive_mark_accessed(&a.entry);
        mox_co_sleep(10);
        keepalive_mark_accessed(&b.entry);
        mox_co_sleep(10);
        keepalive_mark_accessed(&c.entry); // moves C behind B
        // Hold the loop until all three are due, so that the registry finds
        // them together on its next look.
        usleep(200 * 1000);
        ASSERT_TRUE(wait_until([&] { return rec.release_loop_ms.size() == 3; }));
        EXPECT_EQ(rec.release_loop_ms[0], rec.release_loop_ms[2]) << "the registry slept between";
    });
    EXPECT_EQ(rec.events, "+C+A+B-A-B-C");
}

TEST(Keepalive, FiniReleasesEverythingOldestFirstAndJoins)
{
    Recorder rec;
    bool fini_returned = false;
    rec.on_release_hook = [&](Item *) { EXPECT_FALSE(fini_returned); };
    run_in_coroutine([&] {
        keepalive_list list{};
        mox_co *co = start(&list, 60000);
        Item a('A', &rec, &list);
        Item b('B', &rec, &list);
        Item c('C', &rec, &list);
        keepalive_mark_accessed(&a.entry);
        keepalive_mark_accessed(&b.entry);
        keepalive_mark_accessed(&c.entry);
        keepalive_mark_accessed(&a.entry);
        mox_co_sleep(10); // the registry is asleep in its wait queue now
        keepalive_list_fini(&list);
        fini_returned = true;
        EXPECT_EQ(list.co, nullptr);
        EXPECT_NE(list.flags & KEEPALIVE_STOPPING, 0);
        EXPECT_TRUE(mox_list_empty(&list.entries));
        mox_co_join(co);         // already ended
        keepalive_del(&b.entry); // released entries stay released
    });
    EXPECT_EQ(rec.events, "+A+B+C-B-C-A");
}

TEST(Keepalive, FiniWhileAReleaseCallbackSuspends)
{
    Recorder rec;
    bool in_hook = false;
    rec.on_release_hook = [&](Item *it) {
        if (it->name != 'A')
            return;
        in_hook = true;
        mox_co_sleep(50);
        in_hook = false;
    };
    run_in_coroutine([&] {
        keepalive_list list{};
        start(&list, 30);
        Item a('A', &rec, &list);
        Item b('B', &rec, &list);
        keepalive_mark_accessed(&a.entry);
        ASSERT_TRUE(wait_until([&] { return in_hook; }));
        keepalive_mark_accessed(&b.entry); // still allowed: not stopping yet
        keepalive_list_fini(&list);
        EXPECT_FALSE(in_hook);
        EXPECT_EQ(list.co, nullptr);
    });
    EXPECT_EQ(rec.events, "+A-A+B-B");
}

TEST(Keepalive, ReleaseCallbackMayDeleteOtherEntries)
{
    Recorder rec;
    Item *victim = nullptr;
    rec.on_release_hook = [&](Item *it) {
        if (it->name == 'A')
            keepalive_del(&victim->entry);
    };
    with_registry(30, [&](keepalive_list *list) {
        Item a('A', &rec, list);
        Item b('B', &rec, list);
        victim = &b;
        keepalive_mark_accessed(&a.entry);
        keepalive_mark_accessed(&b.entry);
        ASSERT_TRUE(wait_until([&] { return a.releases == 1; }));
        Item c('C', &rec, list);
        keepalive_mark_accessed(&c.entry); // the registry goes on as before
        ASSERT_TRUE(wait_until([&] { return c.releases == 1; }));
        EXPECT_EQ(b.releases, 1);
    });
    EXPECT_EQ(rec.events, "+A+B-A-B+C-C");
}

TEST(KeepaliveDeathTest, MisuseIsReportedAsABug)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Recorder rec;
    EXPECT_DEATH(run_in_coroutine([] {
                     keepalive_list list{};
                     start(&list, 0);
                 }),
                 "registry 'reg' needs a positive timeout, got 0 ms(.|\n)*in keepalive_list_init");
    EXPECT_DEATH(run_in_coroutine([] {
                     keepalive_list list{};
                     start(&list, -5);
                 }),
                 "got -5 ms(.|\n)*in keepalive_list_init");
    EXPECT_DEATH(run_in_coroutine([] {
                     mox_context *ctx = mox_context_alloc();
                     mox_context_set_timeout(ctx, 60000);
                     keepalive_list list{};
                     start(&list, 100, ctx);
                 }),
                 "cannot run in a context with a deadline(.|\n)*in keepalive_list_init");
    EXPECT_DEATH(run_in_coroutine([&] {
                     keepalive_list list{};
                     start(&list, 100);
                     Item a('A', &rec, &list);
                     keepalive_list_fini(&list);
                     keepalive_mark_accessed(&a.entry);
                 }),
                 "in keepalive_mark_accessed");
    EXPECT_DEATH(run_in_coroutine([] {
                     keepalive_list list{};
                     start(&list, 100);
                     keepalive_list_fini(&list);
                     keepalive_list_fini(&list);
                 }),
                 "in keepalive_list_fini");
}

} // namespace
