// Work shares on threads: the -numt setting and a runner that gives each
// share its own thread. Evaluators divide their points (not their terms)
// among shares, so that every value is summed in the same order whatever
// the number of threads.
#pragma once

#include <functional>

namespace kvx::common {

// Threads for a -numt value: N >= 1 gives N, 0 one per core of the machine,
// a negative value (the default -4) one.
int thread_count(int numt);

// Runs work(share) for share = 0 .. nshares-1 and returns when all are done:
// share 0 on the calling thread, each other on a thread of its own (or,
// when the system refuses a thread, after share 0 on the calling thread). A share
// must not throw; what it writes must not overlap another share's output.
void run_shares(int nshares, const std::function<void(int share)>& work);

// The contiguous part [first, first + count) of n items that share s of
// nshares takes: the first n mod nshares shares one item more.
void share_range(long n, int nshares, int s, long& first, long& count);

}  // namespace kvx::common
