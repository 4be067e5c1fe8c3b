// Test helpers: a throw-away job directory, a writer for binary orbital files
// (Fortran-style framed records) and the hand-made H2 job of tests/data/h2.
#pragma once

#include <bit>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "common/temp_dir.h"

namespace kvx::test {

// A throw-away job: JOB_DIR/job plus the extensions written.
class TempJob {
public:
    std::string job() const { return dir_.file("job"); }  // job name without extension
    std::string path(const std::string& ext) const { return job() + ext; }
    void write(const std::string& ext, const std::string& bytes) const { dir_.write("job" + ext, bytes); }
    void copy_from(const std::string& source_job, std::initializer_list<const char*> exts) const {
        dir_.copy_job(source_job, "job", exts);
    }

private:
    test::TempDir dir_;
};

// Little-endian byte image of a binary orbital file: header record (norb,
// valid), one record of coefficient rows, an optional energy record.
struct OrbitalFile {
    std::vector<std::vector<double>> orbitals;
    std::vector<double> energies;  // empty: no energy record
    int valid = 1;
    bool wide_header = false;  // intsize 1: two 64-bit integers
    std::optional<int> norb;   // header norb instead of the row count

    std::string bytes() const {
        std::string out;
        auto put = [&](std::uint64_t v, int n) {
            for (int i = 0; i < n; ++i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xff));
        };
        auto record = [&](const std::vector<double>& values) {
            put(8 * values.size(), 4);
            for (double d : values) put(std::bit_cast<std::uint64_t>(d), 8);
            put(8 * values.size(), 4);
        };
        const int w = wide_header ? 8 : 4;
        put(2 * w, 4);
        put(static_cast<std::uint64_t>(norb ? *norb : static_cast<int>(orbitals.size())), w);
        put(static_cast<std::uint64_t>(valid), w);
        put(2 * w, 4);
        std::vector<double> rows;
        for (const auto& o : orbitals) rows.insert(rows.end(), o.begin(), o.end());
        record(rows);
        if (!energies.empty()) record(energies);
        return out;
    }
};

inline const std::string kH2 = KVX_TEST_DATA "/h2/h2";

// The multi-file H2 job with its occupied orbital (0.5, 0.5) and a virtual one.
inline void write_h2(const TempJob& job) {
    job.copy_from(kH2, {".control", ".coord", ".basis", ".sym"});
    OrbitalFile mos;
    mos.orbitals = {{0.5, 0.5}, {0.75, -0.75}};
    mos.energies = {-0.5, 0.25};
    job.write(".mos", mos.bytes());
}

}  // namespace kvx::test
