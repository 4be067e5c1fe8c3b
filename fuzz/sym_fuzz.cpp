// Fuzz target: the ".sym" file of a multi-file job, then the molecule built
// from it as kalvex builds it.
#include "fuzz_job.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return kvx::fuzz::run_job_file(".sym", data, size);
}
