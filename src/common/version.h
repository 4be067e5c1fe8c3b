// The release every tool names (--version, the banner).
#pragma once

#include <string>

namespace kvx::common {

inline constexpr const char* kVersion = "1.2-18-win";

// "kalvex-cube (Kalvex version 1.2-18-win)": the answer to --version.
inline std::string version_line(const char* tool) { return std::string(tool) + " (Kalvex version " + kVersion + ")"; }

// "--help" / "-h" and "--version" anywhere among the arguments: the usage or
// version line on standard output. True when the arguments asked for one.
bool answer_help_or_version(const char* tool, const char* usage, int argc, char** argv);

}  // namespace kvx::common
