#include "moldata/symmetry.h"

#include <algorithm>
#include <cstdio>
#include <new>

#include "moldata/basis.h"
#include "moldata/reader.h"
#include "moldata/textio.h"

namespace kvx::moldata {

namespace {

std::unique_ptr<SymmetryInfo> default_record(int n) {
    auto sym = std::make_unique<SymmetryInfo>();
    sym->ntrans = 1;
    sym->nunique = n;
    sym->group = "c1";
    sym->n = n;
    return sym;
}

// Next word of the token reader, line ends skipped; false at end of file.
bool next_word(std::FILE* f, std::string& w) {
    BasisToken t;
    while ((t = next_basis_token(f, w)) == BasisToken::LineEnd) {
    }
    return t == BasisToken::Word;
}

// Skips words up to and including `word`; false at end of file.
bool skip_to(std::FILE* f, const char* word) {
    std::string w;
    while (next_word(f, w))
        if (w == word) return true;
    return false;
}

std::unique_ptr<SymmetryInfo> read_table(std::FILE* f, const std::string& path, int n, JobError& error) {
    const int ntrans = read_keyword(f, "$ntrans");
    if (ntrans == kKeywordMissing || ntrans <= 1) return default_record(n);

    // A table that the file cannot hold (each entry needs a digit and a
    // separator) is treated as an allocation that failed.
    std::rewind(f);
    const long bytes = remaining_bytes(f);
    if (static_cast<long long>(ntrans) * n > bytes / 2) return default_record(n);
    auto sym = std::make_unique<SymmetryInfo>();
    try {
        sym->unique.assign(static_cast<std::size_t>(n), 0);
        sym->images.assign(static_cast<std::size_t>(n) * ntrans, 0);
    } catch (const std::bad_alloc&) {
        return default_record(n);
    }
    sym->n = n;
    sym->ntrans = ntrans;

    std::rewind(f);
    std::string group;
    if (!skip_to(f, "$group") || !next_word(f, group)) {
        error = {kBasisFileEnded};
        return nullptr;
    }
    sym->group = group.size() <= 8 ? group : "c1";

    int nunique = read_keyword(f, "$sym_unique_atoms");
    // Counts outside 1..n cannot index the table: every atom is unique.
    if (nunique == kKeywordMissing || nunique < 1 || nunique > n) nunique = n;

    bool all_unique = nunique == n;
    if (!all_unique) {
        std::string rest;
        if (next_basis_token(f, rest) == BasisToken::End) {  // the rest of the keyword's line
            error = {kBasisFileEnded};
            return nullptr;
        }
        for (int i = 0; i < nunique && !all_unique; ++i)
            if (!scan_int(f, sym->unique[static_cast<std::size_t>(i)])) all_unique = true;
        if (!all_unique) {
            std::rewind(f);
            if (!skip_to(f, "$equivalent_atoms_array:")) {
                error = {kBasisFileEnded};
                return nullptr;
            }
            // Column by column: operation t's n images follow operation t-1's.
            for (int t = 0; t < ntrans && !all_unique; ++t)
                for (int a = 0; a < n; ++a)
                    if (!scan_int(f, sym->images[static_cast<std::size_t>(a) * ntrans + t])) {
                        all_unique = true;
                        break;
                    }
        }
    }
    // Atom numbers outside 1..n name no atom: the table is not used.
    if (!all_unique) {
        const auto in_range = [n](int a) { return a >= 1 && a <= n; };
        const auto unique_end = sym->unique.begin() + nunique;
        const auto bad = std::find_if_not(sym->unique.begin(), unique_end, in_range);
        const auto bad_image = std::find_if_not(sym->images.begin(), sym->images.end(), in_range);
        if (bad != unique_end || bad_image != sym->images.end()) {
            std::printf(
                "Moldata read_symmetry: %s: atom number %d is not one of the %d atoms; every atom is taken "
                "as unique\n",
                path.c_str(), bad != unique_end ? *bad : *bad_image, n);
            std::fflush(stdout);
            all_unique = true;
        }
    }
    if (all_unique) {
        nunique = n;
        for (int i = 0; i < n; ++i) sym->unique[static_cast<std::size_t>(i)] = i + 1;
    }
    sym->nunique = nunique;
    return sym;
}

}  // namespace

JobError read_symmetry(Molecule& mol, const std::string& path) {
    mol.symmetry.reset();
    const long long n64 = static_cast<long long>(mol.natoms) - mol.ndummy[1];
    if (n64 < 1 || n64 > mol.natoms) return {};
    const int n = static_cast<int>(n64);
    File file = open_read(path);
    if (!file) return {};
    JobError error;
    mol.symmetry = read_table(file.get(), path, n, error);
    return error;
}

}  // namespace kvx::moldata
