#include "view/tool_io.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "moldata/reader.h"

namespace kvx::view {

bool read_job_atoms(const std::string& job, std::vector<moldata::Atom>& atoms, std::string& error) {
    moldata::MoleculeLoad load = moldata::build_molecule(job);
    std::fflush(stdout);
    if (load.error) {
        error = "cannot read job " + job + ": " + load.error.message;
        return false;
    }
    const auto& mol = load.molecule;
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
