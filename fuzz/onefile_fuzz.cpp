// Fuzz target: the one-file ".kvm" layout (no ".control"), then the molecule
// built from it as kalvex builds it.
#include "fuzz_job.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static kvx::fuzz::JobFolder folder;
    folder.write(".kvm", std::string(reinterpret_cast<const char*>(data), size));
    kvx::fuzz::build_and_use(folder.job());
    return 0;
}
