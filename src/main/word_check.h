// Warnings about the words of one line (the command line, or a line of
// standard input), on standard error. They change nothing: the words are
// read exactly as before, the warnings only say what Kalvex makes of a
// mistyped or incomplete line.
#pragma once

#include <string>
#include <vector>

#include "moldata/molecule.h"

namespace kvx::main {

// One message per problem, without the "kalvex: " prefix, in word order:
// unknown words (with the nearest known word when one is close), an option
// without a value or with a value that is not a number, a request without a
// valid argument, an orbital list given to a one-orbital request, orbitals
// beyond the last of their set (naming the last). Help and version words are
// not reported; is_help_word / is_version_word pick them out.
std::vector<std::string> word_warnings(int count, char* const* words, const moldata::Molecule& mol);

// Prints each warning as "kalvex: ..." on standard error; with -h, --help or
// --version among the words, the usage text or the version line as well.
void report_words(int count, char* const* words, const moldata::Molecule& mol);

}  // namespace kvx::main
