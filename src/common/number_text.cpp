#include "common/number_text.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <new>

namespace kvx::common {

namespace {

// Below this magnitude t = |v| 10^6 < 2^52, where the micro-units below are
// exact.
constexpr double kFixedFast = 4e9;

// round_half_even(|v| 10^6), exactly: t + err = |v| 10^6 exactly (Dekker's
// product, with 10^6 exact in 26 bits), n0 = t rounded half to even (adding
// and taking away 2^52), and err decides only when t is a tie.
std::uint64_t micro_units(double a) {
    const double t = a * 1e6;
    const double c = 134217729.0 * a;  // 2^27 + 1: a = ah + al, 26 bits each
    const double ah = c - (c - a), al = a - ah;
    const double err = (ah * 1e6 - t) + al * 1e6;
    const double n0 = (t + 4503599627370496.0) - 4503599627370496.0;
    const double d = t - n0;  // exact, in [-1/2, 1/2]
    double n = n0;
    if (d == 0.5 && err > 0.0) n = n0 + 1.0;
    if (d == -0.5 && err < 0.0) n = n0 - 1.0;
    return static_cast<std::uint64_t>(n);
}

}  // namespace

char* fixed6(char* out, double v) {
    const double a = std::fabs(v);
    if (!(a < kFixedFast)) return std::to_chars(out, out + kNumberTextMax, v, std::chars_format::fixed, 6).ptr;
    const std::uint64_t q = micro_units(a);
    if (std::signbit(v)) *out++ = '-';
    const std::uint64_t whole = q / 1000000;
    if (whole < 10)
        *out++ = static_cast<char>('0' + whole);
    else
        out = std::to_chars(out, out + 24, whole).ptr;
    *out++ = '.';
    // Six decimals as three pairs of digits.
    const auto frac = static_cast<unsigned>(q - whole * 1000000);
    const unsigned pairs[3] = {frac / 10000, frac / 100 % 100, frac % 100};
    for (unsigned p : pairs) {
        out[0] = static_cast<char>('0' + p / 10);
        out[1] = static_cast<char>('0' + p % 10);
        out += 2;
    }
    return out;
}

char* sci5(char* out, double v) {
    char text[kNumberTextMax];
    char* end = std::to_chars(text, text + sizeof text, v, std::chars_format::scientific, 5).ptr;
    // %E: capitals (E, INF, NAN), right-aligned in 13 characters.
    for (char* c = text; c < end; ++c)
        if (*c >= 'a' && *c <= 'z') *c = static_cast<char>(*c - 'a' + 'A');
    const std::size_t len = static_cast<std::size_t>(end - text);
    for (std::size_t k = len; k < 13; ++k) *out++ = ' ';
    std::memcpy(out, text, len);
    return out + len;
}

char* decimal(char* out, long long v) { return std::to_chars(out, out + 24, v).ptr; }

TextBuffer::TextBuffer(std::FILE* f) : f_(f), big_(new (std::nothrow) char[1 << 20]) {
    buf_ = big_ ? big_.get() : small_;
    cap_ = big_ ? std::size_t{1} << 20 : sizeof small_;
}

void TextBuffer::put(const char* s) {
    for (; *s; ++s) put(*s);
}

bool TextBuffer::flush() {
    if (used_ > 0 && std::fwrite(buf_, 1, used_, f_) != used_) ok_ = false;
    used_ = 0;
    return ok_;
}

}  // namespace kvx::common
