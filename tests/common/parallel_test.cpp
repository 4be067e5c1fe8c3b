// Work shares: every item in exactly one share, in order; every share run
// once, on as many threads as asked.
#include "common/parallel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace {

using namespace kvx::common;

TEST(Parallel, SharesCoverTheItemsOnceInOrder) {
    for (long n : {0L, 1L, 7L, 27000L, 27001L})
        for (int shares : {1, 2, 3, 7, 64}) {
            long next = 0;
            for (int s = 0; s < shares; ++s) {
                long first = -1, count = -1;
                share_range(n, shares, s, first, count);
                EXPECT_EQ(first, next) << n << " " << shares << " " << s;
                EXPECT_GE(count, n / shares);
                EXPECT_LE(count, n / shares + 1);
                next += count;
            }
            EXPECT_EQ(next, n) << n << " " << shares;
        }
}

TEST(Parallel, EveryShareRunsOnceOnItsOwnThread) {
    for (int n : {1, 2, 3, 7}) {
        std::mutex m;
        std::multiset<int> seen;
        std::set<std::thread::id> threads;
        run_shares(n, [&](int s) {
            std::lock_guard<std::mutex> lock(m);
            seen.insert(s);
            threads.insert(std::this_thread::get_id());
        });
        EXPECT_EQ(seen.size(), static_cast<std::size_t>(n));
        for (int s = 0; s < n; ++s) EXPECT_EQ(seen.count(s), 1u);
        EXPECT_EQ(threads.size(), static_cast<std::size_t>(n));
        EXPECT_EQ(threads.count(std::this_thread::get_id()), 1u);  // share 0 on the caller
    }
}

TEST(Parallel, ThreadCountFromTheNumtSetting) {
    EXPECT_EQ(thread_count(3), 3);
    EXPECT_EQ(thread_count(1), 1);
    EXPECT_EQ(thread_count(-4), 1);  // the default stays single-threaded
    EXPECT_EQ(thread_count(-1), 1);
    EXPECT_GE(thread_count(0), 1);
    EXPECT_EQ(thread_count(0),
              std::thread::hardware_concurrency() ? static_cast<int>(std::thread::hardware_concurrency()) : 1);
}

}  // namespace
