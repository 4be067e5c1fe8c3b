#include "view/property_file.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <fstream>
#include <string_view>

#include "common/input_file.h"
#include "moldata/property_words.h"

namespace kvx::view {

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

std::vector<std::string_view> tokens_of(std::string_view line) {
    std::vector<std::string_view> out;
    std::size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && is_blank(line[i])) ++i;
        const std::size_t start = i;
        while (i < line.size() && !is_blank(line[i])) ++i;
        if (i > start) out.push_back(line.substr(start, i - start));
    }
    return out;
}

// The whole token, or nothing; from_chars takes no '+', no spaces, no hex.
template <class T>
bool parse_whole(std::string_view tok, T& v) {
    const char* end = tok.data() + tok.size();
    const auto r = std::from_chars(tok.data(), end, v);
    return r.ec == std::errc() && r.ptr == end;
}

bool parse_finite(std::string_view tok, double& v) { return parse_whole(tok, v) && std::isfinite(v); }

struct LineReader {
    std::ifstream in;
    std::string line;
    long number = 0;
    bool next() {
        if (!std::getline(in, line)) return false;
        ++number;
        return true;
    }
};

}  // namespace

bool read_property_file(const std::string& path, ValueOrder order, PropertyFile& out, std::string& error) {
    out = PropertyFile{};
    // A FIFO or a device in the file's place would block or never end.
    const common::RegularFile probe = common::open_regular(path);
    if (probe.fd < 0) {
        error = path + ": cannot open the property file (" + probe.error + ")";
        return false;
    }
    ::close(probe.fd);
    LineReader r;
    r.in.open(path, std::ios::binary);
    if (!r.in) {
        error = path + ": cannot open the property file (" + std::strerror(errno) + ")";
        return false;
    }
    auto fail = [&](const std::string& what) {
        error = path + ":" + std::to_string(r.number) + ": " + what;
        return false;
    };

    static const char* const kHeader[4] = {"stamp", "first grid point (x y z)", "step lengths (dx dy dz)",
                                           "point counts (nx ny nz)"};
    for (int h = 0; h < 4; ++h) {
        if (!r.next()) {
            error = path + ": ends before line " + std::to_string(h + 1) + " (" + kHeader[h] + ")";
            return false;
        }
        const auto t = tokens_of(r.line);
        const std::size_t want = h == 0 ? 1 : 3;
        if (t.size() != want) return fail(std::string("expected ") + kHeader[h]);
        for (std::size_t k = 0; k < want; ++k) {
            bool ok = false;
            if (h == 0) ok = parse_whole(t[k], out.stamp);
            if (h == 1) ok = parse_finite(t[k], out.origin[k]);
            if (h == 2) ok = parse_finite(t[k], out.step[k]);
            if (h == 3) ok = parse_whole(t[k], out.count[k]) && out.count[k] >= 1;
            if (!ok) return fail(std::string("bad ") + kHeader[h] + ": \"" + std::string(t[k]) + "\"");
        }
    }
    for (int d = 0; d < 3; ++d)
        if (out.count[d] > 1 && !(out.step[d] > 0))
            return fail("the step along " + std::string(1, "xyz"[d]) + " must be positive when it has " +
                        std::to_string(out.count[d]) + " points");

    unsigned long long expected = 1;
    for (int d = 0; d < 3; ++d)
        if (__builtin_mul_overflow(expected, static_cast<unsigned long long>(out.count[d]), &expected))
            return fail("point counts too large");
    const std::string counts_text = std::to_string(out.count[0]) + " x " + std::to_string(out.count[1]) + " x " +
                                    std::to_string(out.count[2]) + " = " + std::to_string(expected);

    // Never trust the header with memory: grow with the values actually read.
    std::vector<double> v;
    v.reserve(static_cast<std::size_t>(std::min<unsigned long long>(expected, 1u << 20)));
    long first_blank = 0;
    while (r.next()) {
        const auto t = tokens_of(r.line);
        if (t.empty()) {
            if (!first_blank) first_blank = r.number;
            continue;
        }
        if (first_blank) {
            r.number = first_blank;
            return fail("empty line among the values");
        }
        if (t.size() != 1) return fail("expected one value per line");
        if (v.size() == expected) return fail("more values than the counts " + counts_text);
        double x = 0;
        if (!parse_finite(t[0], x)) return fail("not a finite number: \"" + std::string(t[0]) + "\"");
        v.push_back(x);
    }
    if (r.in.bad()) {
        error = path + ": read error";
        return false;
    }
    if (v.size() != expected) {
        error = path + ": holds " + std::to_string(v.size()) + " values, the counts " + counts_text + " on line 4";
        return false;
    }

    const int nx = out.count[0], ny = out.count[1], nz = out.count[2];
    if (order == ValueOrder::kStorage) {
        out.values = std::move(v);
    } else {
        out.values.resize(v.size());
        std::size_t k = 0;
        for (int iz = 0; iz < nz; ++iz)
            for (int iy = 0; iy < ny; ++iy)
                for (int ix = 0; ix < nx; ++ix) out.values[out.index(ix, iy, iz)] = v[k++];
    }
    return true;
}

PropertyName property_name_of(const std::string& path) {
    std::string_view name = path;
    if (const auto slash = name.rfind('/'); slash != std::string_view::npos) name.remove_prefix(slash + 1);
    if (name.ends_with(".grid")) name.remove_suffix(5);

    PropertyName out;
    // Orbital files end in "-WORD-N"; a user base may itself contain '-'.
    std::size_t digits = 0;
    while (digits < name.size() && std::isdigit(static_cast<unsigned char>(name[name.size() - 1 - digits]))) ++digits;
    if (digits > 0 && digits < name.size() && name[name.size() - 1 - digits] == '-') {
        const std::string_view head = name.substr(0, name.size() - 1 - digits);
        for (const moldata::PropertyWord& p : moldata::kPropertyWords)
            if (p.writes_file && p.orbital && head.ends_with(p.request)) {
                int n = 0;
                if (!parse_whole(name.substr(name.size() - digits), n) || n < 1) break;
                out.word = moldata::file_word(p);
                out.orbital = n;
                return out;
            }
    }
    // The request word is "-" and the file word: the separator before it.
    for (const moldata::PropertyWord& p : moldata::kPropertyWords)
        if (p.writes_file && name.ends_with(p.request)) {
            out.word = moldata::file_word(p);
            return out;
        }
    return out;
}

bool is_signed_property(const std::string& word) {
    const moldata::PropertyWord* p = moldata::find_file_word(word);
    return p && p->is_signed;
}

std::string describe_property(const PropertyName& name) {
    const moldata::PropertyWord* p = moldata::find_file_word(name.word);
    if (!p) return "";
    return name.orbital > 0 ? std::string(p->description) + " " + std::to_string(name.orbital) : p->description;
}

std::string define_property(const PropertyName& name, bool closed_shell) {
    const std::string what = describe_property(name);
    if (what.empty()) return what;
    const moldata::PropertyWord* p = moldata::find_file_word(name.word);
    if (p->orbital) return what + " with the displacement atom minus point (odd-l functions negated)";
    if (name.word == "ep") return what + " of the nuclei and electrons";
    std::string out = what;
    if (closed_shell && (name.word == "dena" || name.word == "spin"))
        out += ", for this closed-shell job the total density,";
    if (name.word == "spin" && !closed_shell) out += " (alpha minus beta)";
    return out + " without the cross terms between shells";
}

}  // namespace kvx::view
