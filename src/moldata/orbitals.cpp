#include "moldata/orbitals.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/memory.h"
#include "moldata/textio.h"

namespace kvx::moldata {

namespace {

bool read_words(std::FILE* f, std::int32_t* w, int n) {
    return std::fread(w, sizeof(std::int32_t), static_cast<std::size_t>(n), f) == static_cast<std::size_t>(n);
}

}  // namespace

std::unique_ptr<OrbitalSet> read_binary_orbitals(const std::string& path, int nbasis, int intsize, int* announced) {
    if (nbasis <= 0) return nullptr;
    File file = open_read(path, true);
    if (!file) return nullptr;
    std::FILE* f = file.get();

    std::int32_t frame, head[4] = {0, 0, 0, 0};
    if (!read_words(f, &frame, 1)) return nullptr;
    if (!read_words(f, head, intsize == 1 ? 4 : 2)) return nullptr;
    const int norb = head[0];
    const int valid = intsize == 1 ? head[2] : head[1];
    if (!read_words(f, &frame, 1) || norb < 0) return nullptr;
    if (announced) *announced = norb;

    // Never more rows than the file can hold: a header announcing more than
    // that reads as a file cut inside the rows.
    const std::size_t row_bytes = static_cast<std::size_t>(nbasis) * sizeof(double);
    const long avail = remaining_bytes(f);
    const std::size_t fit = avail > 4 ? (static_cast<std::size_t>(avail) - 4) / row_bytes : 0;
    const int rows = static_cast<std::size_t>(norb) <= fit ? norb : static_cast<int>(fit);
    // A large (perhaps sparse) file is no reason to take more memory than
    // the process can have: such a set is not read, as if it failed to fit.
    const std::uint64_t bytes = static_cast<std::uint64_t>(rows) * row_bytes;
    if (bytes > common::usable_memory_bytes()) {
        std::printf("Moldata read_binary_orbitals: %s: %d orbitals of %d functions need %s, more than the %s this "
                    "process can use; not read\n",
                    path.c_str(), rows, nbasis, common::memory_text(bytes).c_str(),
                    common::memory_text(common::usable_memory_bytes()).c_str());
        std::fflush(stdout);
        return nullptr;
    }

    auto set = std::make_unique<OrbitalSet>();
    auto coef = rowmat_alloc(rows, nbasis);
    if (!coef) return nullptr;
    set->coef = std::move(*coef);
    set->valid = valid;

    int count = 0;
    bool whole = read_words(f, &frame, 1);
    for (; whole && count < rows; ++count)
        if (std::fread(set->coef.row(count), sizeof(double), static_cast<std::size_t>(nbasis), f) !=
            static_cast<std::size_t>(nbasis))
            whole = false;
    if (!whole) --count;  // the row being read was incomplete
    if (count < 0) count = 0;
    whole = whole && rows == norb;

    if (whole) {
        std::int32_t close_word, next_word;
        const bool have_close = read_words(f, &close_word, 1);
        if (have_close && read_words(f, &next_word, 1)) {
            std::vector<double> e(static_cast<std::size_t>(norb));
            if (std::fread(e.data(), sizeof(double), e.size(), f) == e.size()) {
                set->energy = std::move(e);
                set->has_energy = true;
            }
        }
    }
    set->count = count;
    if (count < rows) rowmat_resize(set->coef, count);
    return set;
}

bool write_binary_orbitals(const std::string& path, const OrbitalSet& set) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    bool ok = true;
    // A record is its bytes framed by their count (4 bytes) on both sides.
    auto record = [&](const void* data, std::size_t bytes) {
        const auto frame = static_cast<std::uint32_t>(bytes);
        ok = ok && std::fwrite(&frame, 4, 1, f) == 1 && (bytes == 0 || std::fwrite(data, bytes, 1, f) == 1) &&
             std::fwrite(&frame, 4, 1, f) == 1;
    };
    const std::int32_t head[2] = {set.count, set.valid};
    record(head, sizeof head);
    record(set.coef.data.data(), static_cast<std::size_t>(set.count) * set.coef.cols * sizeof(double));
    if (set.has_energy && set.energy.size() == static_cast<std::size_t>(set.count))
        record(set.energy.data(), set.energy.size() * sizeof(double));
    return std::fclose(f) == 0 && ok;
}

namespace {

constexpr int kKvmLine = 500;

// First integer on the line (the orbital number); -1 when there is none.
long first_integer(const std::string& line) {
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (std::isdigit(static_cast<unsigned char>(line[i]))) {
            const bool neg = i > 0 && line[i - 1] == '-';
            const long v = std::strtol(line.c_str() + i, nullptr, 10);
            return neg ? -v : v;
        }
    }
    return -1;
}

double number_after(const std::string& line, const char* key) {
    const auto p = line.find(key);
    if (p == std::string::npos) return 0;
    return std::strtod(line.c_str() + p + std::strlen(key), nullptr);
}

// The token after key as an integer: 0 when the key is absent; false when
// the token is not an integer.
bool integer_after(const std::string& line, const char* key, long& value) {
    value = 0;
    const auto p = line.find(key);
    if (p == std::string::npos) return true;
    const char* start = line.c_str() + p + std::strlen(key);
    int v = 0;
    if (parse_int_token(std::string(start, std::strcspn(start, " \t\r\n")), v) != IntToken::Value) return false;
    value = v;
    return true;
}

}  // namespace

std::unique_ptr<OrbitalSet> read_text_orbitals(const std::string& jobname, const char* section, int nbasis) {
    if (nbasis <= 0) return nullptr;
    const std::string path = jobname + ".kvm";
    File file = open_read(path, false, kOneFileLimit);
    if (!file) return nullptr;
    std::FILE* f = file.get();
    std::string line;
    if (!find_line(f, line, section, kKvmLine)) return nullptr;

    auto set = std::make_unique<OrbitalSet>();
    set->coef.cols = nbasis;
    set->valid = 1;
    set->has_energy = true;
    // Rows are made as orbital numbers appear; rows no orbital fills stay 0.
    std::vector<char> complete;
    long n = 0, ncoefs = 0, counter = 0;
    bool in_orbital = false;
    int count = 0;
    auto reject = [&](const char* what, const std::string& value) {
        std::printf("Moldata read_text_orbitals: %s section %s: %s %s\n", path.c_str(), section, what, value.c_str());
        std::fflush(stdout);
        return nullptr;
    };
    while (count < nbasis && read_line(f, line, kKvmLine)) {
        if (line.find('$') != std::string::npos) break;
        if (line.find("eigenvalue=") != std::string::npos) {
            n = first_integer(line);
            if (!integer_after(line, "ncoefs=", ncoefs))
                return reject("coefficient count not an integer:", line.substr(0, line.find_first_of("\r\n")));
            if (n < 1 || n > nbasis) return reject("orbital number out of range:", std::to_string(n));
            if (ncoefs < 0 || ncoefs > nbasis) return reject("coefficient count out of range:", std::to_string(ncoefs));
            if (n > set->coef.rows) {
                set->coef.data.resize(static_cast<std::size_t>(n) * nbasis, 0.0);
                set->coef.rows = static_cast<int>(n);
                set->energy.resize(static_cast<std::size_t>(n), 0.0);
                complete.resize(static_cast<std::size_t>(n), 0);
            }
            set->energy[static_cast<std::size_t>(n - 1)] = number_after(line, "eigenvalue=");
            counter = 0;
            in_orbital = true;
            continue;
        }
        if (!in_orbital) continue;
        double* row = set->coef.row(static_cast<int>(n - 1));
        const char* p = line.c_str();
        while (*p) {
            p += std::strspn(p, " \t\n");
            if (!*p) break;
            const std::size_t len = std::strcspn(p, " \t\n");
            const std::string tok(p, len);
            p += len;
            if (counter < nbasis) row[counter] = std::strtod(tok.c_str(), nullptr);
            ++counter;
        }
        if (counter == ncoefs && !complete[static_cast<std::size_t>(n - 1)]) {
            complete[static_cast<std::size_t>(n - 1)] = 1;
            ++count;
        }
    }
    set->count = count;
    return set;
}

namespace {

// The warnings of one set read from `source` (a file, or a section of one).
void check_count(const OrbitalSet* set, const std::string& source, int announced, int occupied, const char* count_name,
                 std::vector<std::string>* warnings) {
    if (!set || !warnings) return;
    auto add = [&](const std::string& w) {  // ".los" is read for both spins
        if (std::find(warnings->begin(), warnings->end(), w) == warnings->end()) warnings->push_back(w);
    };
    if (announced > set->count)
        add(source + " holds " + std::to_string(set->count) + " orbitals; its header announces " +
            std::to_string(announced) + " (a cut file or a damaged header)");
    if (set->count < occupied)
        add(source + " holds " + std::to_string(set->count) + " orbitals, fewer than the " + std::to_string(occupied) +
            " occupied (" + count_name + "): densities from it leave the missing ones out");
}

}  // namespace

void read_orbitals(Molecule& mol, const std::string& jobname, std::vector<std::string>* warnings) {
    mol.alpha.reset();
    mol.beta.reset();
    mol.localized.reset();
    mol.localized_beta.reset();
    mol.natural.reset();
    const int n = mol.nbasis, w = mol.intsize;
    // Each set from its file, with the file's name and header for the warnings.
    auto read = [&](std::unique_ptr<OrbitalSet>& slot, const char* ext, int occupied, const char* count_name) {
        int announced = 0;
        slot = read_binary_orbitals(jobname + ext, n, w, &announced);
        check_count(slot.get(), jobname + ext, announced, occupied, count_name, warnings);
        return slot != nullptr;
    };
    read(mol.alpha, ".mos", mol.nalpha, "$nalpha");
    if (!mol.restricted) read(mol.beta, ".mob", mol.nbeta, "$nbeta");
    if (!read(mol.localized, ".los", mol.nalpha, "$nalpha")) read(mol.localized, ".loc", mol.nalpha, "$nalpha");
    if (!mol.restricted) {
        // The beta localized orbitals come from the same ".los" name: intended.
        read(mol.localized_beta, ".los", mol.nbeta, "$nbeta");
        read(mol.natural, ".nos", 0, "");
    }
}

void read_onefile_orbitals(Molecule& mol, const std::string& jobname, std::vector<std::string>* warnings) {
    auto read = [&](std::unique_ptr<OrbitalSet>& slot, const char* section, int occupied, const char* count_name) {
        slot = read_text_orbitals(jobname, section, mol.nbasis);
        check_count(slot.get(), jobname + ".kvm section " + section, 0, occupied, count_name, warnings);
    };
    read(mol.alpha, "$scfmo", mol.nalpha, "$nalpha");
    read(mol.beta, "$betamo", mol.nbeta, "$nbeta");
    read(mol.localized, "$scflo", mol.nalpha, "$nalpha");
    read(mol.localized_beta, "$betalo", mol.nbeta, "$nbeta");
    read(mol.natural, "$betano", 0, "");
}

void print_orbitals(const OrbitalSet& set) {
    for (int k = 0; k < set.count && k < set.coef.rows; ++k) {
        const double e = set.has_energy && static_cast<std::size_t>(k) < set.energy.size() ? set.energy[k] : 0.0;
        std::printf("\nOrbital %d energy: %f \n", k + 1, e);
        const double* c = set.coef.row(k);
        for (int i = 0; i < set.coef.cols; ++i) std::printf("function %d  coeff %f\n", i + 1, c[i]);
    }
}

void print_atoms(const Molecule& mol) {
    for (std::size_t a = 0; a < mol.atoms.size(); ++a) {
        const Atom& at = mol.atoms[a];
        std::printf("Atom: %d %s %f %f %f\n", static_cast<int>(a + 1), at.symbol.c_str(), at.x, at.y, at.z);
    }
}

void print_shells(const Molecule& mol) {
    for (std::size_t s = 0; s < mol.shells.size(); ++s)
        std::printf("Shell %d type %d nprim %d\n", static_cast<int>(s + 1), mol.shells[s].type, mol.shells[s].nprim);
}

}  // namespace kvx::moldata
