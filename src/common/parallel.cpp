#include "common/parallel.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

namespace kvx::common {

int thread_count(int numt) {
    if (numt > 0) return numt;
    if (numt < 0) return 1;
    const unsigned cores = std::thread::hardware_concurrency();
    return cores > 0 ? static_cast<int>(cores) : 1;
}

namespace {

// Threads kept from one run to the next: starting a thread costs 0.1-0.3 ms
// here, a few per cent of a 60^3 density; waking a parked one costs a few
// microseconds. Worker k (1-based) runs share k of each run that has one. The
// threads are detached and parked until the process ends; they block every
// signal, so Ctrl-C and the termination handlers run on the calling thread.
class Pool {
public:
    // Runs work(s) for the shares the pool has threads for and returns how
    // many it started (shares 1 .. started); the caller runs share 0 and any
    // share beyond, then calls wait().
    int start(int nshares, const std::function<void(int)>& work) {
        std::unique_lock<std::mutex> lock(m_);
        grow(nshares - 1);
        const int started = std::min(nshares - 1, workers_);
        work_ = &work;
        nshares_ = started + 1;
        pending_ = started;
        ++generation_;
        lock.unlock();
        wake_.notify_all();
        return started;
    }

    void wait() {
        std::unique_lock<std::mutex> lock(m_);
        done_.wait(lock, [&] { return pending_ == 0; });
        work_ = nullptr;
    }

    // The runner's own lock: one run at a time uses the pool.
    std::mutex busy;

private:
    // Up to n workers; a thread the system refuses leaves the count short.
    void grow(int n) {
        if (workers_ >= n) return;
        sigset_t all, old;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &old);  // inherited by the new threads
        while (workers_ < n) {
            try {
                std::thread(&Pool::serve, this, workers_ + 1, generation_).detach();
            } catch (const std::system_error&) {
                break;
            }
            ++workers_;
        }
        pthread_sigmask(SIG_SETMASK, &old, nullptr);
    }

    void serve(int k, long seen) {
        std::unique_lock<std::mutex> lock(m_);
        for (;;) {
            wake_.wait(lock, [&] { return generation_ != seen; });
            seen = generation_;
            if (k >= nshares_) continue;
            const std::function<void(int)>* work = work_;
            lock.unlock();
            (*work)(k);
            lock.lock();
            if (--pending_ == 0) done_.notify_one();
        }
    }

    std::mutex m_;
    std::condition_variable wake_, done_;
    int workers_ = 0;
    long generation_ = 0;
    const std::function<void(int)>* work_ = nullptr;
    int nshares_ = 0;
    int pending_ = 0;
};

// The process's pool, made on first use and never destroyed (its threads
// outlive main). A forked child has none of its parent's threads: it makes
// a pool of its own.
Pool* the_pool() {
    static std::mutex m;
    static Pool* pool = nullptr;
    static pid_t owner = 0;
    std::lock_guard<std::mutex> lock(m);
    if (!pool || owner != getpid()) {
        pool = new (std::nothrow) Pool;
        owner = getpid();
    }
    return pool;
}

// Without the pool: a thread per share for this run only.
void run_on_new_threads(int nshares, const std::function<void(int share)>& work) {
    std::vector<std::thread> threads;
    std::vector<int> here;  // shares no thread could be started for
    try {
        threads.reserve(static_cast<std::size_t>(nshares - 1));
        here.reserve(static_cast<std::size_t>(nshares - 1));
    } catch (const std::bad_alloc&) {
        // Too many shares to even list: run them all on this thread.
        for (int s = 0; s < nshares; ++s) work(s);
        return;
    }
    for (int s = 1; s < nshares; ++s) {
        try {
            threads.emplace_back(work, s);
        } catch (const std::system_error&) {
            here.push_back(s);  // out of threads (a process limit): run it here
        }
    }
    work(0);
    for (int s : here) work(s);
    for (std::thread& t : threads) t.join();
}

}  // namespace

void run_shares(int nshares, const std::function<void(int share)>& work) {
    if (nshares <= 1) {
        work(0);
        return;
    }
    Pool* pool = the_pool();
    std::unique_lock<std::mutex> busy;
    if (pool) busy = std::unique_lock<std::mutex>(pool->busy, std::try_to_lock);
    if (!busy.owns_lock()) {
        // A run from inside a share, or from another thread: threads of its own.
        run_on_new_threads(nshares, work);
        return;
    }
    const int started = pool->start(nshares, work);
    work(0);
    for (int s = started + 1; s < nshares; ++s) work(s);  // shares the system gave no thread for
    pool->wait();
}

void share_range(long n, int nshares, int s, long& first, long& count) {
    if (nshares < 1) nshares = 1;
    const long base = n / nshares, extra = n % nshares;
    first = s * base + (s < extra ? s : extra);
    count = base + (s < extra ? 1 : 0);
}

}  // namespace kvx::common
