#include "common/parallel.h"

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

void run_shares(int nshares, const std::function<void(int share)>& work) {
    if (nshares <= 1) {
        work(0);
        return;
    }
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

void share_range(long n, int nshares, int s, long& first, long& count) {
    if (nshares < 1) nshares = 1;
    const long base = n / nshares, extra = n % nshares;
    first = s * base + (s < extra ? s : extra);
    count = base + (s < extra ? 1 : 0);
}

}  // namespace kvx::common
