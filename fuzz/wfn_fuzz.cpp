// Fuzz target: kalvex-import's reader of an AIM wfn file. A file it cannot read is
// refused with ImportError; anything else that leaves the reader is a fault.
#include <cstdint>
#include <string>

#include "import/readers.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::vector<std::string> lines =
        kvx::import::split_lines(std::string(reinterpret_cast<const char*>(data), size));
    try {
        kvx::import::detect_format(lines);
        kvx::import::read_wfn(lines);
    } catch (const kvx::import::ImportError&) {
    }
    return 0;
}
