#include "view/tool_io.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "moldata/reader.h"

namespace kvx::view {

namespace {

struct JobReadGuard {
    const char* tool = nullptr;
    const char* job = nullptr;  // non-null while the readers run
    bool registered = false;
};

JobReadGuard g_guard;

void fail_interrupted_job_read() {
    if (!g_guard.job) return;
    std::fflush(stdout);
    std::fprintf(stderr, "%s: cannot read job %s\n", g_guard.tool, g_guard.job);
    std::_Exit(1);
}

}  // namespace

bool read_job_atoms(const char* tool, const std::string& job, std::vector<moldata::Atom>& atoms,
                    std::string& error) {
    if (!g_guard.registered) g_guard.registered = std::atexit(fail_interrupted_job_read) == 0;
    g_guard.tool = tool;
    g_guard.job = job.c_str();
    auto mol = moldata::build_molecule(job);
    g_guard.job = nullptr;
    std::fflush(stdout);
    if (!mol || !mol->has_atoms()) {
        error = "cannot read job " + job + " (no atoms in " + job + ".coord or " + job + ".kvm)";
        return false;
    }
    atoms = mol->atoms;
    return true;
}

bool write_atomically(const std::string& path, const std::function<bool(std::FILE*)>& write, std::string& error) {
    std::string tmp = path + ".XXXXXX";
    const int fd = ::mkstemp(tmp.data());
    if (fd < 0) {
        error = "cannot create " + path + " (" + std::strerror(errno) + ")";
        return false;
    }
    std::FILE* f = ::fdopen(fd, "w");
    if (!f) {
        ::close(fd);
        std::remove(tmp.c_str());
        error = "cannot create " + path;
        return false;
    }
    // mkstemp makes 0600; give the file the mode fopen would have.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(fd, 0666 & ~mask);
    bool ok = write(f);
    ok = std::fflush(f) == 0 && !std::ferror(f) && ok;
    ok = std::fclose(f) == 0 && ok;
    if (!ok || std::rename(tmp.c_str(), path.c_str()) != 0) {
        std::remove(tmp.c_str());
        error = "cannot write " + path;
        return false;
    }
    return true;
}

int report_failure(const char* tool, const std::string& message) {
    std::fflush(stdout);
    std::fprintf(stderr, "%s: %s\n", tool, message.c_str());
    return 1;
}

std::string without_grid_suffix(const std::string& name) {
    return name.ends_with(".grid") ? name.substr(0, name.size() - 5) : name;
}

}  // namespace kvx::view
