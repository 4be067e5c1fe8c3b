// Input files that may have been replaced by something other than a file: a
// FIFO nobody writes to, a link to /dev/zero, a file that keeps growing. Only
// regular files are opened, without waiting for a writer, and a stream reads
// no further than the file's size when it was opened (or a bound), so that no
// reader waits or runs for ever.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace kvx::common {

inline constexpr std::uint64_t kNoLimit = UINT64_MAX;

// A regular file opened for reading: descriptor (close-on-exec, blocking
// reads) and its size when opened. fd -1 when the path is absent,
// unreadable or not a regular file; error then says which.
struct RegularFile {
    int fd = -1;
    std::uint64_t size = 0;
    std::string error;         // the system's reason, or "a FIFO, not a regular file", ...
    bool not_regular = false;  // it exists but is no regular file
};
RegularFile open_regular(const std::string& path);

// A stdio stream over open_regular(path) that ends after
// min(size when opened, limit) bytes and supports seeking within them.
// Null (with error set) when the path is not a readable regular file; cut is
// set when the file is longer than limit.
std::FILE* open_bounded(const std::string& path, std::uint64_t limit, std::string* error = nullptr,
                        bool* cut = nullptr);

}  // namespace kvx::common
