#include "support/WorkerPool.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>
#include <vector>

using namespace Kestrel::Private;
using namespace std::chrono_literals;

namespace {

// Waits for the pool's threads to end on their own, within a generous bound.
bool threadsEnd(WorkerPool& pool)
{
    for (const auto deadline = std::chrono::steady_clock::now() + 5s; std::chrono::steady_clock::now() < deadline;) {
        if (pool.threadCount() == 0)
            return true;
        std::this_thread::sleep_for(10ms);
    }
    return false;
}

} // namespace

TEST(WorkerPoolTest, IdleThreadsEndAndLaterWorkStartsThemAgainInArrivalOrder)
{
    WorkerPool pool(1, 8, 50ms);
    EXPECT_EQ(pool.threadCount(), 0U);
    std::vector<int> order;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::promise<void> done;
    ASSERT_TRUE(pool.post([&, released] { released.wait(); order.push_back(1); }, {}));
    ASSERT_TRUE(pool.post([&] { order.push_back(2); }, {}));
    ASSERT_TRUE(pool.post([&] { order.push_back(3); done.set_value(); }, {}));
    EXPECT_EQ(pool.threadCount(), 1U);
    release.set_value();
    done.get_future().wait();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
    ASSERT_TRUE(threadsEnd(pool));

    std::promise<void> again;
    ASSERT_TRUE(pool.post([&] { again.set_value(); }, {}));
    EXPECT_EQ(again.get_future().wait_for(5s), std::future_status::ready);
    EXPECT_TRUE(pool.stop(std::chrono::steady_clock::now() + 5s));
    EXPECT_EQ(pool.threadCount(), 0U);
}

TEST(WorkerPoolTest, FullBacklogAndStoppedPoolRefuseAtOnceAndWaitingTasksAreRefused)
{
    WorkerPool pool(1, 1);
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::promise<void> started;
    ASSERT_TRUE(pool.post([&, released] { started.set_value(); released.wait(); }, {}));
    started.get_future().wait();
    bool refused = false;
    ASSERT_TRUE(pool.post([] { FAIL() << "a waiting task ran after the stop"; }, [&] { refused = true; }));
    EXPECT_FALSE(pool.post([] {}, {}));

    std::thread releaser([&] {
        std::this_thread::sleep_for(50ms);
        release.set_value();
    });
    EXPECT_TRUE(pool.stop(std::chrono::steady_clock::now() + 5s));
    releaser.join();
    EXPECT_TRUE(refused);
    EXPECT_FALSE(pool.post([] {}, {}));
}
