// Work shares: every item in exactly one share, in order; every share run
// once, on as many threads as asked, also when runs nest, overlap or follow
// a fork.
#include "common/parallel.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
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

// Counts, per run, how often each share ran.
struct Tally {
    std::mutex m;
    std::multiset<int> seen;
    void operator()(int s) {
        std::lock_guard<std::mutex> lock(m);
        seen.insert(s);
    }
    bool each_once(int n) const {
        if (seen.size() != static_cast<std::size_t>(n)) return false;
        for (int s = 0; s < n; ++s)
            if (seen.count(s) != 1) return false;
        return true;
    }
};

TEST(Parallel, RunsNestedOverlappingAndGrowingComplete) {
    // A share that runs shares of its own (the kept threads are busy then).
    std::atomic<int> inner_ok{0};
    run_shares(3, [&](int) {
        Tally t;
        run_shares(2, std::ref(t));
        if (t.each_once(2)) ++inner_ok;
    });
    EXPECT_EQ(inner_ok.load(), 3);

    // Runs from two threads at once, with share counts that grow and shrink.
    std::atomic<int> bad{0};
    auto many = [&] {
        for (int r = 0; r < 200; ++r) {
            const int n = 1 + r % 5;
            Tally t;
            run_shares(n, std::ref(t));
            if (!t.each_once(n)) ++bad;
        }
    };
    std::thread other(many);
    many();
    other.join();
    EXPECT_EQ(bad.load(), 0);
}

TEST(Parallel, AForkedChildRunsSharesOfItsOwn) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "ThreadSanitizer cannot start threads after a multi-threaded fork";
#endif
    Tally before;
    run_shares(3, std::ref(before));  // the parent now keeps threads
    ASSERT_TRUE(before.each_once(3));
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        Tally t;
        run_shares(3, std::ref(t));
        _exit(t.each_once(3) ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
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
