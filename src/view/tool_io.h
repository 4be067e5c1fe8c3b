// What kalvex-cube and kalvex-slice share: the job's atoms, output files that
// appear whole or not at all, and their one-line error reports.
#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "moldata/molecule.h"

namespace kvx::view {

// The job's atoms (bohr). False (and error set, naming the job) when the
// readers refuse the job or it has no atoms to read.
bool read_job_atoms(const std::string& job, std::vector<moldata::Atom>& atoms, std::string& error);

// Writes path through write(f) into a temporary file beside it, renamed over
// path only when write returned true and every byte reached the disk.
bool write_atomically(const std::string& path, const std::function<bool(std::FILE*)>& write, std::string& error);

// "TOOL: message" on standard error; returns 1, the tools' failure status.
int report_failure(const char* tool, const std::string& message);

// name without a trailing ".grid".
std::string without_grid_suffix(const std::string& name);

}  // namespace kvx::view
