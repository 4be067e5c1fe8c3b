#include "common/number_text.h"

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <new>

namespace kvx::common {

namespace {

// Below this magnitude v 10^6 rounded is an integer of 64 bits at most.
constexpr double kFixedFast = 1e12;

// round_half_even(m 2^-s 10^6) for m < 2^53 and s > 0, exactly: m 10^6 <
// 2^73 fits 128 bits.
std::uint64_t micro_units(std::uint64_t m, int s) {
    if (s >= 128) return 0;  // m 10^6 < 2^73 < 2^(s-1): below half a unit
    __extension__ using u128 = unsigned __int128;
    const u128 n = static_cast<u128>(m) * 1000000u;
    const u128 q = n >> s;
    const u128 rem = n - (q << s);
    const u128 half = static_cast<u128>(1) << (s - 1);
    return static_cast<std::uint64_t>(q + ((rem > half || (rem == half && (q & 1))) ? 1 : 0));
}

}  // namespace

char* fixed6(char* out, double v) {
    if (!(std::fabs(v) < kFixedFast))
        return std::to_chars(out, out + kNumberTextMax, v, std::chars_format::fixed, 6).ptr;
    const std::uint64_t bits = std::bit_cast<std::uint64_t>(v);
    const int biased = static_cast<int>((bits >> 52) & 0x7ff);
    std::uint64_t m = bits & ((std::uint64_t{1} << 52) - 1);
    // v = m 2^(e) with e = biased - 1075 (subnormals: biased 0, e = -1074);
    // e < 0 here since |v| < 2^40.
    int s;
    if (biased == 0) {
        s = 1074;
    } else {
        m |= std::uint64_t{1} << 52;
        s = 1075 - biased;
    }
    const std::uint64_t q = micro_units(m, s);
    if (bits >> 63) *out++ = '-';
    out = std::to_chars(out, out + 24, q / 1000000).ptr;
    *out++ = '.';
    std::uint64_t frac = q % 1000000;
    for (int k = 5; k >= 0; --k) {
        out[k] = static_cast<char>('0' + frac % 10);
        frac /= 10;
    }
    return out + 6;
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
