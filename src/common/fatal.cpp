#include "common/fatal.h"

#include <cstdarg>
#include <cstdlib>

namespace kvx::common {

std::atomic<int> abort_flag{0};

void fatal(const char* msg) {
    std::puts(msg);
    std::fflush(stdout);
    std::exit(0);
}

void fatalf(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    std::vprintf(fmt, ap);
    va_end(ap);
    std::fflush(stdout);
    std::exit(0);
}

}  // namespace kvx::common
