#include "common/version.h"

#include <cstdio>
#include <cstring>

namespace kvx::common {

bool answer_help_or_version(const char* tool, const char* usage, int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::printf("%s\n", usage);
            return true;
        }
        if (std::strcmp(argv[i], "--version") == 0) {
            std::printf("%s\n", version_line(tool).c_str());
            return true;
        }
    }
    return false;
}

}  // namespace kvx::common
