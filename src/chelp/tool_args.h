// Command-line words of kalvex-potential and kalvex-charges.
#pragma once

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <string>

namespace kvx::chelp {

// A whole word as a finite number; false for anything else ("1e", "nan").
inline bool parse_number(const char* word, double& out) {
    if (!word || !*word) return false;
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(word, &end);
    if (end == word || *end != '\0' || errno == ERANGE || !std::isfinite(v)) return false;
    out = v;
    return true;
}

inline bool parse_int(const char* word, int& out) {
    double v = 0.0;
    if (!parse_number(word, v) || v != std::floor(v) || std::fabs(v) > 1e9) return false;
    out = static_cast<int>(v);
    return true;
}

// Printable and short: a file's word or line quoted in a message.
inline std::string quoted(const std::string& s, std::size_t max = 40) {
    std::string out = "\"";
    for (std::size_t i = 0; i < s.size() && i < max; ++i) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        out += c < 0x20 || c == 0x7f ? '?' : static_cast<char>(c);
    }
    if (s.size() > max) out += "...";
    return out + "\"";
}

}  // namespace kvx::chelp
