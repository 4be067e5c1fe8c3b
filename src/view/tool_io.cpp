#include "view/tool_io.h"

#include "common/output_file.h"
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

bool write_atomically(const std::string& path, const std::function<bool(std::FILE*)>& write, std::string& error) {
    return common::write_atomically(path, write, error);
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
