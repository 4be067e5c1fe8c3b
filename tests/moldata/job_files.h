// Test helpers: a throw-away job directory and a writer for binary orbital
// files (framed records: header, coefficient rows, optional energies).
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace kvx::testing {

class TempJob {
public:
    explicit TempJob(const std::string& name = "job") {
        std::string tmpl = (std::filesystem::temp_directory_path() / "kvx_moldata_XXXXXX").string();
        dir_ = mkdtemp(tmpl.data());
        job_ = dir_ + "/" + name;
    }
    ~TempJob() {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    TempJob(const TempJob&) = delete;
    TempJob& operator=(const TempJob&) = delete;

    // The job name: directory plus base name, without extension.
    const std::string& job() const { return job_; }
    std::string path(const std::string& ext) const { return job_ + ext; }

    void write(const std::string& ext, const std::string& text) const {
        std::ofstream(path(ext), std::ios::binary) << text;
    }
    void write_bytes(const std::string& ext, const std::vector<unsigned char>& bytes) const {
        std::ofstream out(path(ext), std::ios::binary);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }

    // Copies fixture files (source job name plus each extension) into this job.
    void copy_from(const std::string& source_job, std::initializer_list<const char*> exts) const {
        for (const char* e : exts) {
            std::ifstream in(source_job + e, std::ios::binary);
            std::ofstream(path(e), std::ios::binary) << in.rdbuf();
        }
    }

private:
    std::string dir_;
    std::string job_;
};

// Little-endian byte image of a binary orbital file. Each record is framed
// by its byte length before and after, as Fortran unformatted files are.
struct OrbitalFile {
    std::vector<std::vector<double>> orbitals;  // rows of nbasis coefficients
    std::vector<double> energies;               // empty: no energy record
    int valid = 1;
    bool wide_header = false;  // intsize 1: two 64-bit integers
    std::optional<int> norb;   // header norb instead of the row count

    std::vector<unsigned char> bytes() const {
        std::vector<unsigned char> out;
        auto put32 = [&](std::int32_t v) {
            for (int i = 0; i < 4; ++i) out.push_back(static_cast<unsigned char>((static_cast<std::uint32_t>(v) >> (8 * i)) & 0xff));
        };
        auto put64 = [&](std::int64_t v) {
            for (int i = 0; i < 8; ++i) out.push_back(static_cast<unsigned char>((static_cast<std::uint64_t>(v) >> (8 * i)) & 0xff));
        };
        auto putd = [&](double d) {
            std::uint64_t u;
            std::memcpy(&u, &d, 8);
            put64(static_cast<std::int64_t>(u));
        };
        const int n = norb ? *norb : static_cast<int>(orbitals.size());
        put32(wide_header ? 16 : 8);
        if (wide_header) {
            put64(n);
            put64(valid);
        } else {
            put32(n);
            put32(valid);
        }
        put32(wide_header ? 16 : 8);
        std::int32_t len = 0;
        for (const auto& o : orbitals) len += static_cast<std::int32_t>(8 * o.size());
        put32(len);
        for (const auto& o : orbitals)
            for (double d : o) putd(d);
        put32(len);
        if (!energies.empty()) {
            put32(static_cast<std::int32_t>(8 * energies.size()));
            for (double d : energies) putd(d);
            put32(static_cast<std::int32_t>(8 * energies.size()));
        }
        return out;
    }
};

}  // namespace kvx::testing
