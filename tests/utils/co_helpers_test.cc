// Coroutine sleeps, named children and time-limited stretches on the real
// runtime.
#include "co_runner.h"
#include "mox/mox.h"
#include "utils/mox_helpers.h"

#include <cerrno>
#include <functional>
#include <gtest/gtest.h>
#include <string>

using tarn_test::run_in_coroutine;

namespace
{

struct Seen {
    std::string co_name;
    std::string ctx_id;
    bool has_id = false;
};

int32_t record_identity(mox_co *co, void *arg)
{
    auto *seen = static_cast<Seen *>(arg);
    seen->co_name = mox_co_get_name(co);
    const char *id = mox_context_get_id(mox_co_get_ctx(mox_current_co()));
    seen->has_id = id != nullptr;
    seen->ctx_id = id != nullptr ? id : "";
    return 0;
}

int32_t call_fn(mox_co *, void *arg)
{
    (*static_cast<std::function<void()> *>(arg))();
    return 0;
}

TEST(CoSleep, WaitsAtLeastTheTimeAndReportsSuccess)
{
    run_in_coroutine([] {
        uint64_t t0 = get_abs_time_us();
        EXPECT_EQ(mox_co_sleep(30), 0);
        EXPECT_GE(get_abs_time_us() - t0, 29000u);
        EXPECT_EQ(mox_co_sleep_cancelable(30), 0);
        EXPECT_GE(get_abs_time_us() - t0, 59000u);
        EXPECT_EQ(mox_co_sleep(0), 0);
    });
}

TEST(CoSleep, CancelableSleepEndsWhenTheContextIsCancelled)
{
    run_in_coroutine([] {
        mox_context *ctx = mox_context_alloc();
        mox_co_set_ctx(ctx);
        std::function<void()> canceller = [ctx] {
            mox_co_sleep(20);
            mox_context_cancel(ctx);
        };
        mox_co_create(nullptr, call_fn, &canceller);
        uint64_t t0 = get_abs_time_us();
        EXPECT_EQ(mox_co_sleep_cancelable(60000), -ECANCELED);
        EXPECT_LT(get_abs_time_us() - t0, 30000000u); // far below the minute asked for
        // The plain sleep does not watch for cancellation.
        EXPECT_EQ(mox_co_sleep(10), 0);
        mox_co_set_ctx(nullptr);
        mox_context_put(ctx);
    });
}

TEST(CoCreateChild, ChildIdJoinsParentIdAndName)
{
    run_in_coroutine([] {
        mox_context *named = mox_context_set_id(mox_context_alloc(), "job-7/");
        mox_context *anonymous = mox_context_alloc();
        Seen under_named, under_anonymous, under_none, long_name;
        mox_co *a = mox_co_create_child(named, record_identity, &under_named, "sub_%d", 3);
        mox_co *b = mox_co_create_child(anonymous, record_identity, &under_anonymous, "sub");
        mox_co *c = mox_co_create_child(nullptr, record_identity, &under_none, "%s", "top");
        mox_co *d = mox_co_create_child(named, record_identity, &long_name, "%s",
                                        std::string(300, 'x').c_str());
        // Dropping the caller's references must not pull the contexts away
        // from the children.
        mox_context_put(named);
        mox_context_put(anonymous);
        for (mox_co *co : {a, b, c, d})
            mox_co_join(co);
        EXPECT_EQ(under_named.ctx_id, "job-7/sub_3");
        EXPECT_EQ(under_named.co_name, "job-7/sub_3");
        EXPECT_EQ(under_anonymous.ctx_id, "sub");
        EXPECT_EQ(under_anonymous.co_name, "sub");
        EXPECT_EQ(under_none.ctx_id, "top");
        EXPECT_EQ(long_name.ctx_id, "job-7/" + std::string(127, 'x'));
    });
}

TEST(CoCtxMove, ChildExpiresAndTheOldContextComesBack)
{
    run_in_coroutine([] {
        mox_context *outer = mox_context_set_id(mox_context_alloc(), "outer");
        mox_co_set_ctx(outer);
        mox_context_put(outer);

        mox_context *prev = mox_co_ctx_move_to_child(30);
        EXPECT_EQ(prev, outer);
        mox_context *inner = mox_co_get_ctx(mox_current_co());
        EXPECT_NE(inner, outer);
        EXPECT_NE(mox_context_deadline_ms(inner), 0u);
        int32_t ms = 60000;
        EXPECT_EQ(mox_co_wait_timeout(&ms), -ETIMEDOUT); // ended by the child's deadline
        EXPECT_EQ(mox_co_check_ctx(), -ETIMEDOUT);
        mox_co_ctx_move_from_child(prev);

        EXPECT_EQ(mox_co_get_ctx(mox_current_co()), outer);
        EXPECT_EQ(mox_co_check_ctx(), 0);
        EXPECT_EQ(mox_context_deadline_ms(outer), 0u);
        EXPECT_STREQ(mox_context_get_id(outer), "outer"); // still alive: the reference came back
        mox_co_set_ctx(nullptr);
    });
}

TEST(CoCtxMove, WorksForACoroutineWithoutContext)
{
    run_in_coroutine([] {
        mox_context *prev = mox_co_ctx_move_to_child(10000);
        EXPECT_EQ(prev, nullptr);
        EXPECT_NE(mox_co_get_ctx(mox_current_co()), nullptr);
        mox_co_ctx_move_from_child(prev);
        EXPECT_EQ(mox_co_get_ctx(mox_current_co()), nullptr);
    });
}

TEST(CoCtxMoveDeathTest, ZeroTimeoutIsABug)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(run_in_coroutine([] { mox_co_ctx_move_to_child(0); }),
                 "at utils:[0-9]+ in mox_co_ctx_move_to_child\\(\\)");
}

} // namespace
