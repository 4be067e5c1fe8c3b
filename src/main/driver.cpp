#include "main/driver.h"

#include <cstdio>

namespace kvx::main {

int run(int argc, char** argv) {
    if (argc < 2) {
        std::puts("Usage: kalvex jobname");
        return 0;
    }
    std::printf("Cannot read molecular data for %s\n", argv[1]);
    return 0;
}

}  // namespace kvx::main
