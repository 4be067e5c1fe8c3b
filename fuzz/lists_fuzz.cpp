// Fuzz target: orbital lists ("1,3-4,7-") of every orbital type, with and
// without negation, over the H2 job's orbitals.
#include <cstring>
#include <string>

#include "fuzz_job.h"
#include "main/select.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static kvx::fuzz::JobFolder folder;
    static kvx::moldata::MoleculeLoad load = [] {
        folder.write_h2();
        return kvx::moldata::build_molecule(folder.job());
    }();
    if (!load.molecule || size < 1) return 0;
    // First byte: orbital type (-3 .. 3, two outside the table) and negation.
    const int type = static_cast<int>(data[0] % 7) - 3;
    const int negate = (data[0] >> 3) & 1;
    // The driver hands a request argument of at most 256 characters.
    std::string list(reinterpret_cast<const char*>(data + 1), std::min<std::size_t>(size - 1, 256));
    list = list.c_str();  // up to the first NUL, as a C string argument
    kvx::main::select_mos(*load.molecule, list.data(), type, negate);
    return 0;
}
