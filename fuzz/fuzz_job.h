// What the fuzz targets of the job readers share: a job folder made once per
// process holding the hand-made H2 job, into which each run writes the
// fuzzed bytes as one of the job's files before the molecule is built as
// kalvex builds it.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>

#include "chelp/chelp.h"
#include "common/memory.h"
#include "moldata/reader.h"

namespace kvx::fuzz {

inline const char kH2Control[] = "$natoms 2\n$nalpha 1\n$nbeta 0\n$ndummy 0 0\n$end\n";
inline const char kH2Coord[] = "$coordinates\nH1 0.0 0.0 -0.7 1.0 1.0078\nH2 0.0 0.0 0.7 1.0 1.0078\n$end\n";
inline const char kH2Basis[] = "$nbasis 2\n$nshell 2\n$nprim 2\n$basis\nfor H\ns 1.0 2.5\n$end\n";
inline const char kH2Sym[] = "$ntrans 2\n$group ci\n$sym_unique_atoms 1\n1\n$equivalent_atoms_array:\n1 2\n2 1\n$end\n";

// Two orbitals of two coefficients and their energies, framed records.
inline std::string h2_orbitals() {
    std::string out;
    auto put = [&](const void* p, std::size_t n) { out.append(static_cast<const char*>(p), n); };
    auto record = [&](const void* p, std::uint32_t n) { put(&n, 4), put(p, n), put(&n, 4); };
    const std::int32_t head[2] = {2, 1};
    const double coef[4] = {0.5, 0.5, 0.75, -0.75}, energy[2] = {-0.5, 0.25};
    record(head, sizeof head);
    record(coef, sizeof coef);
    record(energy, sizeof energy);
    return out;
}

class JobFolder {
public:
    JobFolder() {
        const char* shm = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : nullptr;
        const char* tmp = getenv("TMPDIR");
        std::string tmpl = std::string(shm ? shm : tmp ? tmp : "/tmp") + "/kvx_fuzz_XXXXXX";
        if (!mkdtemp(tmpl.data())) abort();
        dir_ = tmpl;
        // Reader messages on standard output would drown libFuzzer's report.
        if (!freopen("/dev/null", "w", stdout)) abort();
        // The harness shares the machine with others: plan for 512 MB.
        common::set_memory_budget(std::uint64_t{512} << 20);
    }
    ~JobFolder() {
        for (const char* e : {".control", ".coord", ".basis", ".sym", ".mos", ".kvm"}) unlink((job() + e).c_str());
        rmdir(dir_.c_str());
    }
    std::string job() const { return dir_ + "/job"; }
    void write(const char* ext, const std::string& bytes) const {
        std::ofstream(job() + ext, std::ios::binary | std::ios::trunc) << bytes;
    }
    // The H2 job in the multi-file layout, every file whole.
    void write_h2() const {
        write(".control", kH2Control);
        write(".coord", kH2Coord);
        write(".basis", kH2Basis);
        write(".sym", kH2Sym);
        write(".mos", h2_orbitals());
    }

private:
    std::string dir_;
};

// Builds the molecule as kalvex does and sets up the charge fit on it (which
// reads the atom counts and the symmetry record).
inline void build_and_use(const std::string& job) {
    moldata::MoleculeLoad load = moldata::build_molecule(job);
    if (!load.molecule) return;
    chelp::chelp_setup(load.molecule.get(), 1e-6);
    chelp::chelp_release();
}

// One run of a job-file target: the H2 job with `ext` replaced by the data.
inline int run_job_file(const char* ext, const std::uint8_t* data, std::size_t size) {
    static JobFolder folder;
    static const bool made = (folder.write_h2(), true);
    (void)made;
    // The next run overwrites the same file: the others stay the H2 job's.
    folder.write(ext, std::string(reinterpret_cast<const char*>(data), size));
    build_and_use(folder.job());
    return 0;
}

}  // namespace kvx::fuzz
