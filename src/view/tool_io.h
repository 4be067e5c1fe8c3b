// What kalvex-cube and kalvex-slice share: the job's atoms, output files that
// appear whole or not at all, and their one-line error reports.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "moldata/molecule.h"
#include "view/property_file.h"

namespace kvx::view {

// What the tools take from a job: its atoms (bohr), its density checksum
// (the job's part of its files' stamps) and whether it is closed-shell.
struct JobView {
    std::vector<moldata::Atom> atoms;
    std::uint32_t density_checksum = 0;
    bool closed_shell = false;
};

// False (and error set, naming the job) when the readers refuse the job or
// it has no atoms to read.
bool read_job(const std::string& job, JobView& out, std::string& error);

// Empty when the property file was computed from the job (or the job has no
// density checksum to check it by); otherwise the refusal naming both.
std::string foreign_file_message(const std::string& file, const PropertyFile& pf, const std::string& job,
                                 const JobView& jv);

// Writes path through write(f) into a temporary file beside it, renamed over
// path only when write returned true and every byte reached the disk.
bool write_atomically(const std::string& path, const std::function<bool(std::FILE*)>& write, std::string& error);

// "TOOL: message" on standard error; returns 1, the tools' failure status.
int report_failure(const char* tool, const std::string& message);

// name without a trailing ".grid".
std::string without_grid_suffix(const std::string& name);

}  // namespace kvx::view
