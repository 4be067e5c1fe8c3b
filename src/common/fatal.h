// Fatal-error and interrupt helpers shared by every module.
//
// A fatal condition (allocation failure, impossible input) prints its module's
// message on standard output and ends the process with status 0: scripts that
// drive the program read the message, not the status.
#pragma once

#include <atomic>
#include <csignal>
#include <cstdio>
#include <new>
#include <stdexcept>
#include <utility>

namespace kvx::common {

// puts(msg), flush, exit(0).
[[noreturn]] void fatal(const char* msg);

// printf(fmt, ...), flush, exit(0). The format carries its own line end.
[[noreturn]] void fatalf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Runs f(); if it throws std::bad_alloc (or std::length_error from a size
// that cannot be represented), the module message is printed and the process
// ends as for fatal().
template <class F>
decltype(auto) alloc_or_die(const char* msg, F&& f) {
    try {
        return std::forward<F>(f)();
    } catch (const std::bad_alloc&) {
        fatal(msg);
    } catch (const std::length_error&) {
        fatal(msg);
    }
}

// Runs f(); false when it ran out of memory (std::bad_alloc, or a size that
// cannot be represented). For allocations whose failure is reported softly.
template <class F>
bool try_alloc(F&& f) {
    try {
        std::forward<F>(f)();
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    } catch (const std::length_error&) {
        return false;
    }
}

// Set to 1 by the SIGINT handler; long loops poll it between points or shell
// pairs and stop early. The driver clears it around every calculation. An
// atomic, not a volatile sig_atomic_t: the evaluators' worker threads read
// it while the handler runs on another thread, and a lock-free atomic is
// safe both in a signal handler and across threads.
static_assert(std::atomic<int>::is_always_lock_free);
extern std::atomic<int> abort_flag;

}  // namespace kvx::common
