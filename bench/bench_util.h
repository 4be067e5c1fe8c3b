// What the benchmarks share: kalvex's default box, the best of repeated
// wall-clock times and a large job made of stacked copies of the medium one.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "grid/grid.h"
#include "moldata/lattice.h"
#include "moldata/molecule.h"
#include "moldata/orbitals.h"
#include "moldata/reader.h"

namespace kvx::bench {

// The atoms' bounding box plus 5.7 bohr on every side, as a grid of n points
// per axis, or with spacing h when n is 0.
inline std::unique_ptr<grid::Grid> default_box(const moldata::Molecule& mol, int n, double h = 0.5) {
    const moldata::Box box = moldata::default_box(mol.atoms);
    double centre[3], half[3][3] = {}, spacing[3];
    int counts[3];
    for (int d = 0; d < 3; ++d) {
        half[d][d] = box.length[d] / 2;
        centre[d] = box.start[d] + box.length[d] / 2;
        spacing[d] = h;
        counts[d] = n;
    }
    return grid::grid_build(3, centre, half, spacing, counts);
}

// Shortest wall-clock time of f over repeats runs, in seconds.
inline double best_of(int repeats, const std::function<void()>& f) {
    double best = 1e300;
    for (int r = 0; r < repeats; ++r) {
        const auto t0 = std::chrono::steady_clock::now();
        f();
        best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
    }
    return best;
}

// The system's load averages over 1, 5 and 15 minutes, as /proc/loadavg gives them.
inline std::string load_average() {
    std::ifstream f("/proc/loadavg");
    std::string a, b, c;
    f >> a >> b >> c;
    return a + " " + b + " " + c;
}

inline std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

inline std::string replace_word(std::string text, const std::string& key, long value) {
    const auto at = text.find(key + " ");
    if (at == std::string::npos) return text;
    const auto end = text.find('\n', at);
    return text.replace(at, end - at, key + " " + std::to_string(value));
}

// `copies` medium jobs (the uracil dimer, 256 functions) stacked along z,
// `shift` bohr apart, as a Kalvex job in dir: the same basis per element,
// block-diagonal orbitals (each copy's own), ordered by energy so the
// occupied ones come first. Returns the job's name; exits when it cannot.
inline std::string stacked_job(const std::string& dir, int copies, double shift) {
    const std::string src = KVX_TEST_DATA "/bench/uracil2/uracil2";
    auto one = moldata::build_molecule(src).molecule;
    if (!one || !one->alpha) {
        std::fprintf(stderr, "cannot load %s\n", src.c_str());
        std::exit(1);
    }
    const moldata::Molecule& m = *one;
    const std::string name = dir + "/stack" + std::to_string(copies);
    std::ofstream coord(name + ".coord");
    coord << "$coordinates\n";
    char line[200];
    for (int c = 0; c < copies; ++c)
        for (const auto& a : m.atoms) {
            std::snprintf(line, sizeof line, "%-4s %22.15f %22.15f %22.15f %8.3f %8.3f\n", a.symbol.c_str(), a.x, a.y,
                          a.z + c * shift, a.nuclear_charge, a.extra);
            coord << line;
        }
    coord << "$end\n";
    coord.close();
    std::string control = slurp(src + ".control");
    control = replace_word(control, "$natoms", static_cast<long>(m.atoms.size()) * copies);
    control = replace_word(control, "$nalpha", static_cast<long>(m.nalpha) * copies);
    std::ofstream(name + ".control") << control;
    std::string basis = slurp(src + ".basis");
    basis = replace_word(basis, "$nbasis", static_cast<long>(m.nbasis) * copies);
    basis = replace_word(basis, "$nshell", static_cast<long>(m.shells.size()) * copies);
    basis = replace_word(basis, "$nprim", static_cast<long>(m.nprim) * copies);
    std::ofstream(name + ".basis") << basis;

    const moldata::OrbitalSet& a = *m.alpha;
    const int nb = m.nbasis, norb = a.count;
    std::vector<std::tuple<double, int, int>> order;
    for (int c = 0; c < copies; ++c)
        for (int i = 0; i < norb; ++i) order.emplace_back(a.has_energy ? a.energy[i] : i, c, i);
    std::sort(order.begin(), order.end());
    moldata::OrbitalSet big;
    big.count = norb * copies;
    big.valid = a.valid;
    big.coef.rows = big.count;
    big.coef.cols = nb * copies;
    big.coef.data.assign(static_cast<std::size_t>(big.count) * big.coef.cols, 0.0);
    big.has_energy = true;
    for (int k = 0; k < big.count; ++k) {
        const auto [e, c, i] = order[static_cast<std::size_t>(k)];
        std::copy(a.coef.row(i), a.coef.row(i) + nb, big.coef.row(k) + static_cast<std::ptrdiff_t>(c) * nb);
        big.energy.push_back(e);
    }
    if (!moldata::write_binary_orbitals(name + ".mos", big)) {
        std::fprintf(stderr, "cannot write %s.mos\n", name.c_str());
        std::exit(1);
    }
    return name;
}

}  // namespace kvx::bench
