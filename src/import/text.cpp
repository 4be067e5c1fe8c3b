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

namespace {

// Fortran's exponent letter D as C's E.
std::string c_number(const std::string& tok) {
    std::string t = tok;
    for (char& c : t)
        if (c == 'D' || c == 'd') c = 'E';
    return t;
}

bool is_number(const std::string& tok) {
    const std::string t = c_number(tok);
    char* end = nullptr;
    std::strtod(t.c_str(), &end);
    return !t.empty() && end != t.c_str() && *end == '\0';
}

[[noreturn]] void not_an_integer(const std::string& tok, int line, const char* what) {
    throw ImportError("expected " + std::string(what) + ", found \"" + tok + "\": not an integer", line);
}

}  // namespace

long integer(const std::string& tok, int line, const char* what) {
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(tok.c_str(), &end, 10);
    const bool whole_token = !tok.empty() && *end == '\0';
    if (whole_token && errno != ERANGE && v >= -2147483647L && v <= 2147483647L) return v;
    if (whole_token) throw ImportError("expected " + std::string(what) + ", found \"" + tok + "\": out of range", line);
    if (is_number(tok)) not_an_integer(tok, line, what);
    throw ImportError("expected " + std::string(what) + ", found \"" + tok + "\"", line);
}

long whole(const std::string& tok, int line, const char* what) {
    const double v = number(tok, line, what);
    if (v != std::floor(v)) not_an_integer(tok, line, what);
    if (std::fabs(v) > 2147483647.0)
        throw ImportError("expected " + std::string(what) + ", found \"" + tok + "\": out of range", line);
    return static_cast<long>(v);
}

}  // namespace kvx::import
