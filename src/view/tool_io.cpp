#include "view/tool_io.h"

#include "common/output_file.h"
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
