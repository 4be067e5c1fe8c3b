// kalvex-import: converts a Molden or formatted-checkpoint file into a
// Kalvex job (JOB.control, .coord, .basis, .mos and, for unrestricted jobs,
// .mob).
#pragma once

#include <cstdint>
#include <string>

#include "import/convert.h"
#include "import/source.h"

namespace kvx::import {

// Largest input read: the formatted checkpoint of a job at Kalvex's basis
// function limit (every orbital of both spins, 16 characters a number) is
// well below it.
inline constexpr std::uint64_t kMaxSourceBytes = std::uint64_t{16} << 30;

// Reads and parses the file, the format decided by its content. Only
// regular files are read: a FIFO, a device or a folder is refused.
SourceJob read_source(const std::string& path);

// The command: kalvex-import INPUT JOB. Status 0 with a summary on standard
// output; 1 with one message naming the file (and line) on standard error.
int run_import(int argc, char** argv);

}  // namespace kvx::import
