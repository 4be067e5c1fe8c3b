// A program run as a child process under watch: its standard output and
// error apart, a time limit (the child is killed when it runs past it), an
// optional address-space limit, and what it cost (wall time, peak resident
// memory). For the tests that must show a run ends, and ends small.
#pragma once

#include <fcntl.h>
#include <poll.h>
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

// A program talked to while it runs, in a session of its own: its standard
// output (with standard error when asked, their order kept) read as it
// comes; its standard input a terminal, a descriptor of the caller's, or a
// pipe the caller writes with send().
struct Conversation {
    pid_t pid = -1;
    int in = -1;  // the pipe to its standard input; -1 when input was given
    int out = -1;
    std::string text;

    // Reads until `what` has appeared `nth` times; false at the end of its
    // output or after two minutes.
    bool wait_for(const std::string& what, int nth = 1) {
        const auto t0 = std::chrono::steady_clock::now();
        auto seen = [&] {
            int n = 0;
            for (std::size_t p = text.find(what); p != std::string::npos; p = text.find(what, p + 1)) ++n;
            return n;
        };
        while (seen() < nth) {
            pollfd p{out, POLLIN, 0};
            if (poll(&p, 1, 1000) > 0) {
                char buf[512];
                const ssize_t n = read(out, buf, sizeof buf);
                if (n <= 0) return false;
                text.append(buf, static_cast<std::size_t>(n));
            }
            if (std::chrono::steady_clock::now() - t0 > std::chrono::minutes(2)) return false;
        }
        return true;
    }
    bool send(const std::string& line) const {
        return in >= 0 && write(in, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    }
    // Closes its input pipe, reads the rest of its output and waits for it:
    // its exit status, -1 when it did not exit.
    int finish() {
        if (in >= 0) close(in);
        in = -1;
        char buf[512];
        for (ssize_t n; (n = read(out, buf, sizeof buf)) > 0;) text.append(buf, static_cast<std::size_t>(n));
        close(out);
        int st = 0;
        waitpid(pid, &st, 0);
        return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    }
};

struct ConversationOptions {
    std::string dir = ".";  // where it runs
    std::string terminal;   // opened as its standard input (and controlling terminal)
    int stdin_fd = -1;      // else this descriptor; else a pipe
    bool merge_stderr = false;
};

inline Conversation start_conversation(const std::vector<std::string>& argv, const ConversationOptions& opt = {}) {
    Conversation c;
    int o[2], i[2] = {-1, -1};
    if (pipe(o) != 0) return c;
    const bool own_input = opt.terminal.empty() && opt.stdin_fd < 0;
    if (own_input && pipe(i) != 0) return c;
    c.pid = fork();
    if (c.pid == 0) {
        setsid();
        const int in = !opt.terminal.empty() ? open(opt.terminal.c_str(), O_RDWR) : own_input ? i[0] : opt.stdin_fd;
        dup2(in, 0);
        dup2(o[1], 1);
        if (opt.merge_stderr) dup2(o[1], 2);
        close(o[0]);
        if (own_input) close(i[1]);
        if (chdir(opt.dir.c_str()) != 0) _exit(3);
        std::vector<char*> args;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(2);
    }
    close(o[1]);
    c.out = o[0];
    if (own_input) {
        close(i[0]);
        c.in = i[1];
    }
    return c;
}

}  // namespace kvx::test
