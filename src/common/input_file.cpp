#include "common/input_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kvx::common {

namespace {

const char* kind_of(mode_t mode) {
    if (S_ISDIR(mode)) return "a folder";
    if (S_ISFIFO(mode)) return "a FIFO";
    if (S_ISCHR(mode)) return "a character device";
    if (S_ISBLK(mode)) return "a block device";
    if (S_ISSOCK(mode)) return "a socket";
    return "not a file";
}

// The stream's window onto the file: bytes [0, end) read with pread.
struct Window {
    int fd;
    off64_t pos;
    off64_t end;
};

ssize_t window_read(void* cookie, char* buf, size_t size) {
    auto* w = static_cast<Window*>(cookie);
    const off64_t left = w->end - w->pos;
    if (left <= 0) return 0;
    const size_t want = static_cast<size_t>(std::min<off64_t>(left, static_cast<off64_t>(size)));
    ssize_t got;
    do {
        got = ::pread(w->fd, buf, want, w->pos);
    } while (got < 0 && errno == EINTR);
    if (got > 0) w->pos += got;
    return got;
}

int window_seek(void* cookie, off64_t* offset, int whence) {
    auto* w = static_cast<Window*>(cookie);
    off64_t base = 0;
    if (whence == SEEK_CUR) base = w->pos;
    if (whence == SEEK_END) base = w->end;
    const off64_t to = base + *offset;
    if (to < 0) return -1;
    w->pos = to;
    *offset = to;
    return 0;
}

int window_close(void* cookie) {
    auto* w = static_cast<Window*>(cookie);
    const int rc = ::close(w->fd);
    delete w;
    return rc;
}

}  // namespace

RegularFile open_regular(const std::string& path) {
    RegularFile r;
    // O_NONBLOCK: opening a FIFO without a writer would otherwise wait for one.
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        r.error = std::strerror(errno);
        return r;
    }
    struct stat st;
    const bool examined = ::fstat(fd, &st) == 0;
    if (!examined || !S_ISREG(st.st_mode)) {
        r.error = examined ? std::string(kind_of(st.st_mode)) + ", not a regular file" : std::strerror(errno);
        r.not_regular = examined;
        ::close(fd);
        return r;
    }
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags >= 0) ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    r.fd = fd;
    r.size = st.st_size > 0 ? static_cast<std::uint64_t>(st.st_size) : 0;
    return r;
}

std::FILE* open_bounded(const std::string& path, std::uint64_t limit, std::string* error, bool* cut) {
    RegularFile file = open_regular(path);
    if (cut) *cut = false;
    if (file.fd < 0) {
        if (error) *error = file.error;
        return nullptr;
    }
    if (cut) *cut = file.size > limit;
    const std::uint64_t end = std::min<std::uint64_t>({file.size, limit, static_cast<std::uint64_t>(INT64_MAX)});
    auto* w = new Window{file.fd, 0, static_cast<off64_t>(end)};
    const cookie_io_functions_t io{window_read, nullptr, window_seek, window_close};
    std::FILE* f = ::fopencookie(w, "r", io);
    if (!f) {
        if (error) *error = std::strerror(errno);
        window_close(w);
    }
    return f;
}

}  // namespace kvx::common
