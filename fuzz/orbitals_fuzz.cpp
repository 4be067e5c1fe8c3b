// Fuzz target: the binary ".mos" orbital file of a multi-file job, read with
// either header width ($intsize 2 and 1), then the molecule built from it as
// kalvex builds it (densities included).
#include "fuzz_job.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static kvx::fuzz::JobFolder folder;
    static const bool made = (folder.write_h2(), true);
    (void)made;
    folder.write(".mos", std::string(reinterpret_cast<const char*>(data), size));
    kvx::fuzz::build_and_use(folder.job());
    folder.write(".control", std::string(kvx::fuzz::kH2Control) + "$intsize 1\n");
    kvx::fuzz::build_and_use(folder.job());
    folder.write(".control", kvx::fuzz::kH2Control);
    return 0;
}
