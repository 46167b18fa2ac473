// Coroutines, waits, wait queues, contexts and migration on the real loop.
#include "co_runner.h"
#include "mox/mox.h"

#include <cerrno>
#include <functional>
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using tarn_test::run_in_coroutine;

namespace
{

// Runs a std::function as a child coroutine.
int32_t call_fn(mox_co *, void *arg)
{
    (*static_cast<std::function<void()> *>(arg))();
    return 0;
}

mox_co *spawn(std::function<void()> *fn, mox_context *ctx = nullptr)
{
    return mox_co_create(ctx, call_fn, fn);
}

std::string thread_name()
{
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

MOX_NOINLINE int *errno_address()
{
    return &errno;
}

TEST(Coroutines, InterleaveAtYieldsAndJoin)
{
    std::vector<std::string> trace;
    run_in_coroutine([&] {
        EXPECT_EQ(thread_name(), "eventloop");
        std::function<void()> a = [&] {
            for (int i = 0; i < 3; ++i) {
                trace.push_back(std::to_string(i).insert(0, 1, 'a'));
                mox_co_yield();
            }
        };
        std::function<void()> b = [&] {
            for (int i = 0; i < 3; ++i) {
                trace.push_back(std::to_string(i).insert(0, 1, 'b'));
                mox_co_yield();
            }
        };
        mox_co *ca = spawn(&a);
        mox_co *cb = spawn(&b);
        mox_co_set_name(ca, "worker-%d", 1);
        EXPECT_STREQ(mox_co_get_name(ca), "worker-1");
        EXPECT_EQ(mox_co_join(ca), 0);
        EXPECT_EQ(mox_co_join(cb), 0);
        EXPECT_EQ(mox_co_join(ca), 0); // joining an ended coroutine returns at once
    });
    EXPECT_EQ(trace, (std::vector<std::string>{"a0", "b0", "a1", "b1", "a2", "b2"}));
}

TEST(Coroutines, WaitTimesOutOrIsWokenEarly)
{
    run_in_coroutine([] {
        int32_t ms = 20;
        uint64_t t0 = get_abs_time_us();
        EXPECT_EQ(mox_co_wait_timeout(&ms), -ETIMEDOUT);
        EXPECT_EQ(ms, 0);
        EXPECT_GE(get_abs_time_us() - t0, 19000u);

        mox_co *self = mox_current_co();
        std::function<void()> waker = [self] { mox_co_wakeup(self); };
        spawn(&waker);
        ms = 10000;
        EXPECT_EQ(mox_co_wait_timeout(&ms), 0);
        EXPECT_GT(ms, 0);
        EXPECT_LE(ms, 10000);
    });
}

TEST(Coroutines, WaitQueueWakesEveryWaiterAndEmpties)
{
    run_in_coroutine([] {
        mox_co_waitqueue q;
        mox_co_waitqueue_init(&q);
        int woken = 0;
        std::function<void()> waiter = [&] {
            mox_co *self = mox_current_co();
            mox_co_waitqueue_add(&q, self);
            int32_t ms = 10000;
            if (mox_co_wait_timeout(&ms) == 0)
                ++woken;
            mox_co_waitqueue_del(self);
            EXPECT_EQ(mox_co_wait_link(self)->next, mox_co_wait_link(self));
        };
        std::vector<mox_co *> cos;
        for (int i = 0; i < 3; ++i)
            cos.push_back(spawn(&waiter));
        mox_co_yield(); // let them all queue up
        EXPECT_FALSE(mox_list_empty(&q.waiters));
        mox_co_waitqueue_wakeup_all(&q);
        EXPECT_TRUE(mox_list_empty(&q.waiters));
        for (mox_co *c : cos)
            mox_co_join(c);
        EXPECT_EQ(woken, 3);

        // A waiter that timed out takes its own link out; waking later is harmless.
        std::function<void()> short_waiter = [&] {
            mox_co_waitqueue_add(&q, mox_current_co());
            int32_t ms = 1;
            EXPECT_EQ(mox_co_wait_timeout(&ms), -ETIMEDOUT);
            mox_co_waitqueue_del(mox_current_co());
        };
        mox_co_join(spawn(&short_waiter));
        EXPECT_TRUE(mox_list_empty(&q.waiters));
        mox_co_waitqueue_wakeup_all(&q);
    });
}

TEST(Contexts, ChildNeverOutlivesParentAndIdsAreKept)
{
    run_in_coroutine([] {
        mox_context *parent = mox_context_alloc();
        mox_context_set_timeout(parent, 50);
        mox_context *child = mox_context_alloc_child(parent);
        mox_context_set_timeout(child, 60000);
        EXPECT_EQ(mox_context_deadline_ms(child), mox_context_deadline_ms(parent));
        EXPECT_EQ(mox_context_get_id(child), nullptr);
        EXPECT_EQ(mox_context_set_id(child, "op-%d ", 7), child);
        EXPECT_STREQ(mox_context_get_id(child), "op-7 ");

        // An operation past the deadline fails with -110, at once.
        std::function<void()> late = [] {
            int32_t ms = 60000;
            EXPECT_EQ(mox_co_wait_timeout(&ms), -ETIMEDOUT);
            EXPECT_EQ(mox_co_check_ctx(), -ETIMEDOUT);
            EXPECT_EQ(mox_co_mkdir("/tmp", 0700), -ETIMEDOUT);
            ms = 60000;
            EXPECT_EQ(mox_co_wait_timeout(&ms), -ETIMEDOUT);
        };
        uint64_t t0 = get_abs_time_us();
        mox_co_join(spawn(&late, child));
        uint64_t took_ms = (get_abs_time_us() - t0) / 1000;
        EXPECT_GE(took_ms, 45u);
        EXPECT_LT(took_ms, 30000u);
        mox_context_put(child);
        mox_context_put(parent);
    });
}

TEST(Contexts, TimeoutStretchAndCancellation)
{
    run_in_coroutine([] {
        mox_context *root = mox_context_alloc();
        mox_co_set_ctx(root);
        mox_context_put(root);
        mox_co_ctx_set_timeout(30);
        EXPECT_NE(mox_co_get_ctx(mox_current_co()), root);
        int32_t ms = 60000;
        EXPECT_EQ(mox_co_wait_timeout(&ms), -ETIMEDOUT);
        mox_co_set_ctx(nullptr);
        EXPECT_EQ(mox_co_check_ctx(), 0);

        mox_context *ctx = mox_context_alloc();
        int cancelable_rc = 1, plain_rc = 1;
        std::function<void()> cancelable = [&] {
            int32_t w = 60000;
            cancelable_rc = mox_co_io_wait_cancelable(&w);
        };
        std::function<void()> plain = [&] {
            int32_t w = 50;
            plain_rc = mox_co_wait_timeout(&w);
        };
        mox_co *c1 = spawn(&cancelable, ctx);
        mox_co *c2 = spawn(&plain, ctx);
        mox_co_yield();
        mox_context_cancel(ctx);
        mox_co_join(c1);
        mox_co_join(c2);
        EXPECT_EQ(cancelable_rc, -ECANCELED);
        EXPECT_EQ(plain_rc, -ETIMEDOUT); // only cancelable waits end early
        mox_context_put(ctx);
    });
}

TEST(Migration, RunsOnTheWorkerAndComesBack)
{
    run_in_coroutine([] {
        mox_co *self = mox_current_co();
        std::thread::id loop_thread = std::this_thread::get_id();
        mox_loop *loop = mox_current_loop();
        int *loop_errno = errno_address();
        ASSERT_NE(loop, nullptr);
        for (int round = 0; round < 50; ++round) {
            mox_loop *back = mox_co_migrate_to_thread(mox_process_worker(mox_current_process()));
            EXPECT_EQ(back, loop);
            EXPECT_NE(std::this_thread::get_id(), loop_thread);
            EXPECT_EQ(thread_name(), "worker");
            EXPECT_EQ(mox_current_loop(), nullptr);
            EXPECT_EQ(mox_current_co(), self);
            // errno is per thread: the worker's is not the loop's.
            EXPECT_NE(errno_address(), loop_errno);
            errno = EBADF;
            EXPECT_EQ(mox_co_migrate_from_thread(back), 0);
            EXPECT_EQ(std::this_thread::get_id(), loop_thread);
            EXPECT_EQ(mox_current_loop(), loop);
            EXPECT_EQ(mox_current_co(), self);
            EXPECT_EQ(errno_address(), loop_errno);
        }
    });
}

TEST(Migration, DeepStacksAndExceptionsSurviveSwitches)
{
    // Under the sanitizers this checks the stack-switch annotations: without
    // them, unwinding and deep frames on coroutine stacks give false reports.
    run_in_coroutine([] {
        std::function<int(int)> deep = [&](int n) -> int {
            volatile int pad[128];
            pad[0] = n;
            if (n == 0) {
                mox_co_yield();
                return pad[0];
            }
            return deep(n - 1) + pad[0];
        };
        int total = 0;
        std::function<void()> child = [&] {
            total = deep(200);
            try {
                mox_loop *back =
                    mox_co_migrate_to_thread(mox_process_worker(mox_current_process()));
                mox_co_migrate_from_thread(back);
                throw std::runtime_error("after a switch");
            } catch (const std::exception &e) {
                EXPECT_STREQ(e.what(), "after a switch");
            }
        };
        mox_co_join(spawn(&child));
        EXPECT_EQ(total, 200 * 201 / 2);
    });
}

TEST(Process, ExitCodeStartsAtZeroAndThreadsAreNamed)
{
    mox_process proc{};
    mox_process_init(&proc);
    EXPECT_EQ(proc.exit_code, 0);
    EXPECT_EQ(mox_current_process(), &proc);
    mox_job job{};
    struct Seen {
        mox_process *proc;
        std::string name;
    } seen{&proc, ""};
    mox_job_init(
        &proc, &job,
        [](mox_job *, void *arg) -> void * {
            auto *s = static_cast<Seen *>(arg);
            s->name = thread_name();
            mox_process_terminate(s->proc);
            return nullptr;
        },
        &seen);
    mox_job_wakeup(&job);
    ASSERT_EQ(mox_process_start(&proc, "eventloop"), 0);
    mox_process_wait(&proc);
    EXPECT_EQ(seen.name, "eventloop");
    mox_process_fini(&proc);
}

} // namespace
