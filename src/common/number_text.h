// Numbers as text without printf, character for character what printf
// writes, and text written through one large buffer.
#pragma once

#include <cstddef>
#include <cstdio>
#include <memory>

namespace kvx::common {

// Longest text any of the conversions below writes for a double ("%f" of
// 1.8e308 has 309 digits before the point).
inline constexpr std::size_t kNumberTextMax = 400;

// printf("%f", v): six decimals, rounded half to even from the exact binary
// value, "-" on every negative value (also -0.000000), "nan"/"inf" as printf
// spells them. Writes at out (room for kNumberTextMax), returns the end.
char* fixed6(char* out, double v);

// printf("%13.5E", v).
char* sci5(char* out, double v);

// printf("%d") and printf("%u").
char* decimal(char* out, long long v);

// Text gathered in one buffer and written with fwrite when it fills. The
// buffer is 1 MiB, or a small one when that cannot be had.
class TextBuffer {
public:
    explicit TextBuffer(std::FILE* f);
    TextBuffer(const TextBuffer&) = delete;
    TextBuffer& operator=(const TextBuffer&) = delete;

    // Where the next n <= kNumberTextMax characters go; then commit(end).
    char* room(std::size_t n) {
        if (cap_ - used_ < n) flush();
        return buf_ + used_;
    }
    void commit(const char* end) { used_ = static_cast<std::size_t>(end - buf_); }
    void put(char c) { *room(1) = c, ++used_; }
    void put(const char* s);

    // Writes what is gathered; false once any write has failed.
    bool flush();

private:
    std::FILE* f_;
    std::unique_ptr<char[]> big_;
    char small_[2 * kNumberTextMax];
    char* buf_;
    std::size_t cap_, used_ = 0;
    bool ok_ = true;
};

}  // namespace kvx::common
