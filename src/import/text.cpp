#include "import/text.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "import/source.h"

namespace kvx::import {

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string trim(const std::string& s) {
    std::size_t a = 0, b = s.size();
    while (a < b && std::isspace(static_cast<unsigned char>(s[a]))) ++a;
    while (b > a && std::isspace(static_cast<unsigned char>(s[b - 1]))) --b;
    return s.substr(a, b - a);
}

std::vector<std::string> tokens(const std::string& s) {
    std::vector<std::string> out;
    std::size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
        std::size_t j = i;
        while (j < s.size() && !std::isspace(static_cast<unsigned char>(s[j]))) ++j;
        if (j > i) out.push_back(s.substr(i, j - i));
        i = j;
    }
    return out;
}

// A real number as Fortran writes it ("1.5D+01" too); throws on anything else.
double number(const std::string& tok, int line, const char* what) {
    std::string t = tok;
    for (char& c : t)
        if (c == 'D' || c == 'd') c = 'E';
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(t.c_str(), &end);
    if (t.empty() || *end != '\0' || errno == ERANGE || !std::isfinite(v))
        throw ImportError("expected " + std::string(what) + ", found \"" + tok + "\"", line);
    return v;
}

long integer(const std::string& tok, int line, const char* what) {
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(tok.c_str(), &end, 10);
    if (tok.empty() || *end != '\0' || errno == ERANGE || v < -2147483647L || v > 2147483647L)
        throw ImportError("expected " + std::string(what) + ", found \"" + tok + "\"", line);
    return v;
}

long whole(const std::string& tok, int line, const char* what) {
    const double v = number(tok, line, what);
    if (v != std::floor(v) || std::fabs(v) > 2147483647.0)
        throw ImportError("expected " + std::string(what) + " (a whole number), found \"" + tok + "\"", line);
    return static_cast<long>(v);
}

}  // namespace kvx::import
