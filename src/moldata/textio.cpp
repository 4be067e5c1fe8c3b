#include "moldata/textio.h"

#include <cctype>
#include <climits>

#include "common/input_file.h"

namespace kvx::moldata {

File open_read(const std::string& path, bool binary, std::uint64_t limit) {
    bool cut = false;
    File f(common::open_bounded(path, binary ? common::kNoLimit : limit, nullptr, &cut));
    if (f && cut) {
        std::printf("Moldata open_read: %s is longer than %d MiB; the rest is not read\n", path.c_str(),
                    static_cast<int>(limit >> 20));
        std::fflush(stdout);
    }
    return f;
}

long remaining_bytes(std::FILE* f) {
    const long here = std::ftell(f);
    if (here < 0 || std::fseek(f, 0, SEEK_END) != 0) return 0;
    const long end = std::ftell(f);
    std::fseek(f, here, SEEK_SET);
    return end > here ? end - here : 0;
}

bool read_line(std::FILE* f, std::string& line, int limit) {
    line.clear();
    int c = 0;
    while (static_cast<int>(line.size()) < limit - 1 && (c = std::getc(f)) != EOF) {
        line.push_back(static_cast<char>(c));
        if (c == '\n') break;
    }
    return !line.empty();
}

bool find_line(std::FILE* f, std::string& line, const char* key, int limit) {
    while (read_line(f, line, limit))
        if (line.find(key) != std::string::npos) return true;
    return false;
}

bool scan_token(std::FILE* f, std::string& tok) {
    tok.clear();
    int c;
    while ((c = std::getc(f)) != EOF && std::isspace(c)) {
    }
    if (c == EOF) return false;
    do {
        if (tok.size() < kMaxToken) tok.push_back(static_cast<char>(c));
    } while ((c = std::getc(f)) != EOF && !std::isspace(c));
    if (c != EOF) std::ungetc(c, f);
    return true;
}

IntToken parse_int_token(const std::string& tok, int& value) {
    std::size_t i = tok.size() > 1 && (tok[0] == '-' || tok[0] == '+') ? 1 : 0;
    const auto digit = [&](std::size_t k) {
        return k < tok.size() && std::isdigit(static_cast<unsigned char>(tok[k]));
    };
    if (!digit(i) && !(i < tok.size() && tok[i] == '.' && digit(i + 1))) return IntToken::NotNumber;
    long long v = 0;
    for (; digit(i); ++i)
        if ((v = v * 10 + (tok[i] - '0')) > static_cast<long long>(INT_MAX) + 1)
            v = static_cast<long long>(INT_MAX) + 2;
    if (i != tok.size()) return IntToken::NotInteger;
    if (tok[0] == '-') v = -v;
    if (v > INT_MAX || v < INT_MIN) return IntToken::OutOfRange;
    value = static_cast<int>(v);
    return IntToken::Value;
}

bool scan_int(std::FILE* f, int& value) {
    int c;
    while ((c = std::getc(f)) != EOF && std::isspace(c)) {
    }
    if (c == EOF) return false;
    bool neg = false;
    if (c == '-' || c == '+') {
        neg = c == '-';
        c = std::getc(f);
    }
    if (c == EOF || !std::isdigit(c)) {
        if (c != EOF) std::ungetc(c, f);
        return false;
    }
    long long v = 0;
    bool overflow = false;
    for (; c != EOF && std::isdigit(c); c = std::getc(f)) {
        v = v * 10 + (c - '0');
        if (v > static_cast<long long>(INT_MAX) + 1) {
            overflow = true;
            v = static_cast<long long>(INT_MAX) + 1;
        }
    }
    if (c != EOF) std::ungetc(c, f);
    if (neg) v = -v;
    if (overflow || v > INT_MAX || v < INT_MIN) return false;
    value = static_cast<int>(v);
    return true;
}

}  // namespace kvx::moldata
