// 32-bit end-around-carry checksum (the stamp sum), used for the density
// checksum that identifies a job's wavefunction.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kvx::moldata {

// Bytes taken four at a time as they lie in memory: high += b0*256 + b1,
// low += b2*256 + b3, both started from the seed's halves, then folded with
// crossed carries (low's carry into high, high's carry into low). len is a
// multiple of 4; a trailing partial group is ignored.
std::uint32_t checksum32(const void* data, std::size_t len, std::uint32_t seed);

}  // namespace kvx::moldata
