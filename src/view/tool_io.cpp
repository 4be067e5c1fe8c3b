#include "view/tool_io.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/version.h"
#include "moldata/reader.h"
#include "view/stamp_check.h"

namespace kvx::view {

bool read_job(const std::string& job, JobView& out, std::string& error) {
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
    out.atoms = mol->atoms;
    out.density_checksum = static_cast<std::uint32_t>(mol->density_checksum);
    out.closed_shell = mol->restricted != 0;
    return true;
}

std::string foreign_file_message(const std::string& file, const PropertyFile& pf, const std::string& job,
                                 const JobView& jv) {
    if (check_job_stamp(pf, jv.atoms, jv.density_checksum) != StampFit::kOtherJob) return "";
    return file + " belongs to another job, not to " + job + ": its stamp " + std::to_string(pf.stamp) +
           " fits no grid Kalvex builds for " + job + " (density checksum " + std::to_string(jv.density_checksum) +
           "); --any-job uses it anyway";
}

bool answer_help_or_version(const char* tool, const char* usage, int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::printf("%s\n", usage);
            return true;
        }
        if (std::strcmp(argv[i], "--version") == 0) {
            std::printf("%s\n", common::version_line(tool).c_str());
            return true;
        }
    }
    return false;
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
