// What kalvex says about itself: the usage text with the request and option
// tables, and the words that ask for it.
#pragma once

#include <string>

namespace kvx::main {

// The command, how words are read, every request word (from the property
// word table) with its arguments, every option with its default and meaning.
std::string usage_text();

// -h, -help and --help, in any case.
bool is_help_word(const char* word);
// --version, in any case.
bool is_version_word(const char* word);

}  // namespace kvx::main
