#include "common/output_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>

namespace kvx::common {

namespace {

constexpr int kCleanupSignals[] = {SIGTERM, SIGHUP, SIGINT};
constexpr int kSignalCount = 3;

// The temporary file being written, for the handler; armed while it exists.
char g_temp[PATH_MAX + 32];
volatile std::sig_atomic_t g_armed = 0;

extern "C" void remove_temporary_and_end(int sig) {
    if (g_armed) ::unlink(g_temp);
    g_armed = 0;
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    ::sigaction(sig, &dfl, nullptr);
    // Pending until the handler returns; then the process ends by the signal,
    // as it would have without the handler.
    ::raise(sig);
}

sigset_t cleanup_set() {
    sigset_t s;
    sigemptyset(&s);
    for (int sig : kCleanupSignals) sigaddset(&s, sig);
    return s;
}

// The handler takes only the signals whose action would end the process
// (kalvex's own SIGINT handler and an ignored SIGHUP under nohup stay).
struct Handlers {
    struct sigaction old[kSignalCount];
    bool installed[kSignalCount] = {};

    void install() {
        for (int i = 0; i < kSignalCount; ++i) {
            struct sigaction now {};
            if (::sigaction(kCleanupSignals[i], nullptr, &now) != 0 || now.sa_handler != SIG_DFL ||
                (now.sa_flags & SA_SIGINFO))
                continue;
            struct sigaction act {};
            act.sa_handler = remove_temporary_and_end;
            sigemptyset(&act.sa_mask);
            installed[i] = ::sigaction(kCleanupSignals[i], &act, &old[i]) == 0;
        }
    }
    void restore() {
        for (int i = 0; i < kSignalCount; ++i)
            if (installed[i]) ::sigaction(kCleanupSignals[i], &old[i], nullptr);
    }
};

// Mode of a newly created file, as fopen would give it.
mode_t new_file_mode() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return 0666 & ~mask;
}

// "PID.XXXXXX" after "TARGET.": the process id of the writer, or 0 when the
// name is not one of ours.
long temporary_owner(const char* rest) {
    const char* dot = std::strchr(rest, '.');
    if (!dot || dot == rest || std::strlen(dot + 1) != 6) return 0;
    long pid = 0;
    for (const char* p = rest; p < dot; ++p) {
        if (*p < '0' || *p > '9' || pid > INT_MAX / 10) return 0;
        pid = pid * 10 + (*p - '0');
    }
    return pid;
}

// True when no process holds the file's lock: its writer has ended.
bool lock_is_free(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    const bool free_lock = ::flock(fd, LOCK_EX | LOCK_NB) == 0;
    ::close(fd);
    return free_lock;
}

}  // namespace

SignalsHeld::SignalsHeld() {
    const sigset_t held = cleanup_set();
    ::pthread_sigmask(SIG_BLOCK, &held, &old_);
}

SignalsHeld::~SignalsHeld() { ::pthread_sigmask(SIG_SETMASK, &old_, nullptr); }

int remove_stale_temporaries(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
    const std::string prefix = (slash == std::string::npos ? path : path.substr(slash + 1)) + ".";
    DIR* d = ::opendir(dir.c_str());
    if (!d) return 0;
    int removed = 0;
    const long self = static_cast<long>(::getpid());
    while (const dirent* e = ::readdir(d)) {
        if (std::strncmp(e->d_name, prefix.c_str(), prefix.size()) != 0) continue;
        const long pid = temporary_owner(e->d_name + prefix.size());
        if (pid <= 0 || pid == self) continue;
        // kill(pid, 0) fails with ESRCH only when no such process exists
        // (EPERM: it exists under another user).
        if (::kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH) continue;
        const std::string name = dir + "/" + e->d_name;
        struct stat st;
        if (::lstat(name.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
        // A writer on another machine sharing the folder holds its lock.
        if (lock_is_free(name) && ::unlink(name.c_str()) == 0) ++removed;
    }
    ::closedir(d);
    return removed;
}

bool write_atomically(const std::string& path, const std::function<bool(std::FILE*)>& write, std::string& error) {
    remove_stale_temporaries(path);
    const std::string tmpl = path + "." + std::to_string(::getpid()) + ".XXXXXX";
    // One file at a time: the handler knows one temporary.
    if (tmpl.size() >= sizeof g_temp || g_armed) {
        error = "cannot create " + path + (g_armed ? " (another file is being written)" : " (name too long)");
        return false;
    }

    // No cleanup signal between creating the file and arming the handler,
    // nor between the rename and disarming it.
    const sigset_t block = cleanup_set();
    sigset_t old_mask;
    ::pthread_sigmask(SIG_BLOCK, &block, &old_mask);
    std::memcpy(g_temp, tmpl.c_str(), tmpl.size() + 1);
    const int fd = ::mkostemp(g_temp, O_CLOEXEC);
    if (fd < 0) {
        const int err = errno;
        ::pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
        error = "cannot create " + path + " (" + std::strerror(err) + ")";
        return false;
    }
    g_armed = 1;
    const std::string tmp = g_temp;
    Handlers handlers;
    handlers.install();
    // Held until the file is closed: a temporary whose lock is free has no writer.
    ::flock(fd, LOCK_EX | LOCK_NB);
    ::pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);

    ::fchmod(fd, new_file_mode());
    bool ok = false;
    if (std::FILE* f = ::fdopen(fd, "w")) {
        ok = write(f);
        ok = std::fflush(f) == 0 && !std::ferror(f) && ok;
        ok = std::fclose(f) == 0 && ok;
    } else {
        ::close(fd);
    }

    ::pthread_sigmask(SIG_BLOCK, &block, nullptr);
    const bool renamed = ok && std::rename(tmp.c_str(), path.c_str()) == 0;
    if (!renamed) ::unlink(tmp.c_str());
    g_armed = 0;
    handlers.restore();
    ::pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
    if (!renamed) error = "cannot write " + path;
    return renamed;
}

}  // namespace kvx::common
