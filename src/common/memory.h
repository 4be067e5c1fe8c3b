// How much memory this process can have at most: the machine's physical
// memory, lowered by the process's address-space and data limits and by the
// memory limit of its control group. Readers compare what a file would make
// them allocate with it before allocating.
#pragma once

#include <cstdint>
#include <string>

namespace kvx::common {

std::uint64_t usable_memory_bytes();

// Lowers what usable_memory_bytes reports from now on (0: no lowering), for
// a process that knows it shares the machine, such as a fuzzing harness.
void set_memory_budget(std::uint64_t bytes);

// "6.1 GB", "250 MB": a size for messages.
std::string memory_text(std::uint64_t bytes);

}  // namespace kvx::common
