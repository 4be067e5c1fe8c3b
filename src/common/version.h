// The release every tool names (--version, the banner).
#pragma once

#include <string>

namespace kvx::common {

inline constexpr const char* kVersion = "1.2-18-win";

// "kalvex-cube (Kalvex version 1.2-18-win)": the answer to --version.
inline std::string version_line(const char* tool) { return std::string(tool) + " (Kalvex version " + kVersion + ")"; }

}  // namespace kvx::common
