#include "common/memory.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

namespace kvx::common {

namespace {

// A number in the first line of a control-group file ("max": no limit).
std::uint64_t cgroup_value(const std::string& path) {
    std::ifstream in(path);
    unsigned long long v = 0;
    if (in >> v && v > 0) return v;
    return UINT64_MAX;
}

// The limit of the process's control group: cgroup v2 "0::PATH" or the v1
// memory controller's "N:memory:PATH", and the root of a namespaced mount.
std::uint64_t cgroup_limit() {
    std::uint64_t limit = std::min(cgroup_value("/sys/fs/cgroup/memory.max"),
                                   cgroup_value("/sys/fs/cgroup/memory/memory.limit_in_bytes"));
    std::ifstream in("/proc/self/cgroup");
    std::string line;
    while (std::getline(in, line)) {
        const std::size_t a = line.find(':'), b = line.find(':', a + 1);
        if (a == std::string::npos || b == std::string::npos) continue;
        const std::string controllers = line.substr(a + 1, b - a - 1), path = line.substr(b + 1);
        if (controllers.empty())
            limit = std::min(limit, cgroup_value("/sys/fs/cgroup" + path + "/memory.max"));
        else if (("," + controllers + ",").find(",memory,") != std::string::npos)
            limit = std::min(limit, cgroup_value("/sys/fs/cgroup/memory" + path + "/memory.limit_in_bytes"));
    }
    return limit;
}

std::uint64_t g_budget = 0;

}  // namespace

void set_memory_budget(std::uint64_t bytes) { g_budget = bytes; }

std::uint64_t usable_memory_bytes() {
    std::uint64_t limit = g_budget > 0 ? g_budget : UINT64_MAX;
    const long pages = ::sysconf(_SC_PHYS_PAGES), page = ::sysconf(_SC_PAGE_SIZE);
    if (pages > 0 && page > 0) limit = static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(page);
    for (int resource : {RLIMIT_AS, RLIMIT_DATA}) {
        struct rlimit rl;
        if (::getrlimit(resource, &rl) == 0 && rl.rlim_cur != RLIM_INFINITY)
            limit = std::min<std::uint64_t>(limit, rl.rlim_cur);
    }
    // The control group's limit is read once: its files are slow to read
    // and it does not change under a running process in practice.
    static const std::uint64_t group = cgroup_limit();
    return std::min(limit, group);
}

std::string memory_text(std::uint64_t bytes) {
    char buf[32];
    if (bytes >= (std::uint64_t{1} << 30))
        std::snprintf(buf, sizeof buf, "%.1f GB", static_cast<double>(bytes) / (1 << 30));
    else
        std::snprintf(buf, sizeof buf, "%.0f MB", static_cast<double>(bytes) / (1 << 20));
    return buf;
}

}  // namespace kvx::common
