// kalvex-import: converts a Molden or formatted-checkpoint file into a
// Kalvex job (JOB.control, .coord, .basis, .mos and, for unrestricted jobs,
// .mob).
#pragma once

#include <string>

#include "import/convert.h"
#include "import/source.h"

namespace kvx::import {

// Reads and parses the file, the format decided by its content.
SourceJob read_source(const std::string& path);

// The command: kalvex-import INPUT JOB. Status 0 with a summary on standard
// output; 1 with one message naming the file (and line) on standard error.
int run_import(int argc, char** argv);

}  // namespace kvx::import
