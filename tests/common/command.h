// Test helpers shared by the end-to-end tests: a shell command run with its
// output and exit status, and a whole file read into a string.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace kvx::test {

struct CommandResult {
    std::string out;  // standard output and standard error together
    int status = -1;  // exit status; -1 when the command did not exit normally (a crash)
};

// sh -c command, its standard error joined to its standard output.
inline CommandResult run_command(const std::string& command) {
    CommandResult r;
    FILE* p = popen((command + " 2>&1").c_str(), "r");
    if (!p) return r;
    char buf[4096];
    for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
    const int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

struct SplitResult {
    std::string out, err;  // standard output, standard error
    int status = -1;
};

// sh -c command with its standard output and standard error kept apart (the
// latter through a temporary file, removed again).
inline SplitResult run_split(const std::string& command) {
    SplitResult r;
    std::string errname = (std::filesystem::temp_directory_path() / "kvx_stderr_XXXXXX").string();
    const int fd = mkstemp(errname.data());
    if (fd < 0) return r;
    close(fd);
    FILE* p = popen((command + " 2>'" + errname + "'").c_str(), "r");
    if (p) {
        char buf[4096];
        for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
        const int st = pclose(p);
        r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    }
    std::ifstream in(errname, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    r.err = s.str();
    std::remove(errname.c_str());
    return r;
}

inline std::string read_file(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

}  // namespace kvx::test
