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

std::string g_events; // "+A" on activation, "-A" on release
std::vector<uint64_t> g_release_loop_ms;
std::function<void(char)> g_on_release; // runs in the release callback

struct Item {
    keepalive_entry entry; // standard layout keeps mox_container_of well defined
    char name;
    int releases = 0;
    uint64_t released_at_ms = 0; // the clock when released

    Item(char n, keepalive_list *list) : name(n) { keepalive_init(&entry, list); }
    // An assertion that fails half-way must not leave a dead entry linked.
    ~Item() { keepalive_del(&entry); }
    void mark() { keepalive_mark_accessed(&entry); }
};

void on_activate(keepalive_entry *e)
{
    g_events += std::string("+") + mox_container_of(e, Item, entry)->name;
}

void on_release(keepalive_entry *e)
{
    Item *it = mox_container_of(e, Item, entry);
    EXPECT_EQ(e->link.next, &e->link) << it->name << " released while still linked";
    ++it->releases;
    it->released_at_ms = get_abs_time_us() / 1000;
    g_events += std::string("-") + it->name;
    g_release_loop_ms.push_back(mox_loop_now_ms(mox_current_loop()));
    if (g_on_release)
        g_on_release(it->name);
}

// Sleeps in small steps until `done` holds or five seconds have passed
// (under the runner's ten, so the failing wait is the one reported).
bool wait_until(const std::function<bool()> &done)
{
    for (int i = 0; i < 1000 && !done(); ++i)
        mox_co_sleep(5);
    return done();
}

TEST(Keepalive, ReleasesByTimeoutDelCallbacksAndFini)
{
    bool fini_returned = false, suspend = false, in_hook = false;
    g_events.clear();
    run_in_coroutine([&] {
        mox_context *ctx = mox_context_set_id(mox_context_alloc(), "gw/");
        keepalive_list list{};
        mox_co *co = keepalive_list_init(&list, 50, "reg", on_activate, on_release, ctx);
        mox_context_put(ctx);
        EXPECT_EQ(list.co, co);
        EXPECT_STREQ(mox_co_get_name(co), "gw/keepalive_reg");
        Item a('A', &list), b('B', &list), c('C', &list), d('D', &list), e('E', &list);
        // C's second release deletes D and marks E; A's suspends once armed.
        // No release after fini.
        g_on_release = [&](char name) {
            EXPECT_FALSE(fini_returned);
            if (name == 'C' && c.releases == 2) {
                keepalive_del(&d.entry);
                e.mark(); // due a full timeout after this very moment
            }
            if (name == 'A' && suspend) {
                in_hook = true;
                mox_co_sleep(50);
                in_hook = false;
            }
        };
        for (int round = 1; round <= 2; ++round) { // released a timeout after its mark
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

        // Marked together, so a slow machine cannot release E before its
        // second mark; the last mark moves E behind B.
        for (Item *it : {&e, &c, &b, &e})
            it->mark();
        // Hold the loop until all three are due: one pass finds them together.
        size_t first = g_release_loop_ms.size();
        usleep(200 * 1000);
        ASSERT_TRUE(wait_until([&] { return g_release_loop_ms.size() == first + 3; }));
        EXPECT_EQ(g_release_loop_ms[first], g_release_loop_ms[first + 2]) << "a sleep between";

        c.mark();
        d.mark();
        ASSERT_TRUE(wait_until([&] { return e.releases == 2; }));
        EXPECT_EQ(d.releases, 1);

        suspend = true;
        a.mark();
        ASSERT_TRUE(wait_until([&] { return in_hook; }));
        for (Item *it : {&b, &c, &b}) // still allowed: not stopping yet
            it->mark();
        keepalive_list_fini(&list); // waits for the callback, then releases oldest first
        fini_returned = true;
        EXPECT_TRUE(!in_hook && list.co == nullptr && (list.flags & KEEPALIVE_STOPPING));
        mox_co_join(co);         // already ended
        keepalive_del(&b.entry); // released entries stay released
        keepalive_list bare{};   // no context of its own, nothing to release
        keepalive_list_init(&bare, 50, "reg", on_activate, on_release, nullptr);
        keepalive_list_fini(&bare);
    });
    g_on_release = nullptr;
    EXPECT_EQ(g_events, "+A-A+A-A+B-B+E+C+B-C-B-E+C+D-C-D+E-E+A-A+B+C-C-B");
}

TEST(KeepaliveDeathTest, MisuseIsReportedAsABug)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // Row 0: no timeout; 1: a context with a deadline; 2: a mark after the stop.
    const char *messages[] = {
        "registry 'reg' needs a positive timeout, got 0 ms(.|\n)*in keepalive_list_init",
        "cannot run in a context with a deadline(.|\n)*in keepalive_list_init",
        "in keepalive_mark_accessed"};
    for (int row = 0; row < 3; ++row) {
        EXPECT_DEATH(run_in_coroutine([row] {
                         mox_context *ctx = mox_context_alloc();
                         if (row == 1)
                             mox_context_set_timeout(ctx, 60000);
                         keepalive_list list{};
                         keepalive_list_init(&list, row == 0 ? 0 : 100, "reg", on_activate,
                                             on_release, ctx);
                         Item a('A', &list);
                         keepalive_list_fini(&list);
                         a.mark();
                     }),
                     messages[row]);
    }
}

} // namespace
