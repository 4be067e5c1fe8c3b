#include "moldata/checksum.h"

namespace kvx::moldata {

std::uint32_t checksum32(const void* data, std::size_t len, std::uint32_t seed) {
    const auto* p = static_cast<const unsigned char*>(data);
    std::uint64_t high = seed >> 16;
    std::uint64_t low = seed & 0xffffu;
    for (std::size_t i = 0; i + 4 <= len; i += 4) {
        high += static_cast<std::uint64_t>(p[i]) * 256u + p[i + 1];
        low += static_cast<std::uint64_t>(p[i + 2]) * 256u + p[i + 3];
    }
    if (high <= 0xffffu && low <= 0xffffu) return static_cast<std::uint32_t>(high * 65536u + low);
    std::uint64_t carry_high = high >> 16;
    std::uint64_t carry_low = low >> 16;
    high &= 0xffffu;
    low &= 0xffffu;
    std::uint64_t new_high, new_low;
    do {
        new_high = high + carry_low;
        new_low = low + carry_high;
        carry_high = new_high >> 16;
        carry_low = new_low >> 16;
        high = new_high & 0xffffu;
        low = new_low & 0xffffu;
    } while (carry_high != 0 || new_low >= 65536u);
    return static_cast<std::uint32_t>(new_high * 65536u + new_low);
}

}  // namespace kvx::moldata
