// A program run as a child process under watch: its standard output and
// error apart, a time limit (the child is killed when it runs past it), an
// optional address-space limit, and what it cost (wall time, peak resident
// memory). For the tests that must show a run ends, and ends small.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "common/command.h"
#include "common/temp_dir.h"

namespace kvx::test {

// The sanitizer runtime reserves terabytes of address space: no address-space
// limit can be set under it, and its shadow memory inflates resident sizes.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif
#else
inline constexpr bool kSanitized = false;
#endif

struct ChildRun {
    std::string out, err;
    int status = -1;  // exit status; -1 when it did not exit
    int signal = 0;   // the signal that ended it
    bool timed_out = false;
    double seconds = 0;  // wall time
    long peak_kib = 0;   // peak resident set size
};

struct ChildOptions {
    std::string stdin_file = "/dev/null";
    double timeout_seconds = 60;
    long address_space_mib = 0;  // 0: no limit
};

// Runs argv[0] with argv; waits for its end or the time limit.
inline ChildRun run_child(const std::vector<std::string>& argv, const ChildOptions& opt = {}) {
    TempDir capture;
    const std::string out_file = capture.file("out"), err_file = capture.file("err");
    ChildRun r;
    const auto start = std::chrono::steady_clock::now();
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        const int in = open(opt.stdin_file.c_str(), O_RDONLY);
        const int out = open(out_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int err = open(err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (in < 0 || out < 0 || err < 0) _exit(126);
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        if (opt.address_space_mib > 0) {
            const rlim_t bytes = static_cast<rlim_t>(opt.address_space_mib) << 20;
            const struct rlimit rl { bytes, bytes };
            setrlimit(RLIMIT_AS, &rl);
        }
        std::vector<char*> args;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    struct rusage usage {};
    for (;;) {
        const pid_t done = wait4(pid, &status, WNOHANG, &usage);
        if (done == pid) break;
        const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (elapsed > opt.timeout_seconds) {
            r.timed_out = true;
            kill(-pid, SIGKILL);
            wait4(pid, &status, 0, &usage);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    r.peak_kib = usage.ru_maxrss;
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    r.out = read_file(out_file);
    r.err = read_file(err_file);
    return r;
}

inline std::string tool(const char* name) { return std::string(KVX_BIN_DIR "/") + name; }

}  // namespace kvx::test
