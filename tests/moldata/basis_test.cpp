// Basis reader: normalisation against analytic Gaussian integrals, shell
// numbering, general contractions, sharing, sorting and rejected files.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>

#include "moldata/basis.h"
#include "moldata/molecule.h"
#include "moldata/symbols.h"
#include "job_files.h"

using namespace kvx::moldata;
using kvx::testing::TempJob;

namespace {

const double kPi = 3.14159265358979323846;

std::unique_ptr<Molecule> molecule_with(std::initializer_list<const char*> symbols, int nshell, int nbasis) {
    auto owner = std::make_unique<Molecule>();
    Molecule& mol = *owner;
    for (const char* s : symbols) {
        Atom a;
        a.symbol = s;
        a.atomic_number = atomic_number(s);
        mol.atoms.push_back(a);
    }
    mol.natoms = static_cast<int>(mol.atoms.size());
    mol.nshell = nshell;
    mol.nbasis = nbasis;
    return owner;
}

std::string basis_file(const std::string& body) { return "$nbasis 0\n$basis\n" + body + "$end\n"; }

// <phi|phi> of one contraction column with the cartesian factor
// x^ax y^ay z^az: sum_ik c_i c_k P_i P_k prod_dir (2n-1)!!/(2p)^n (pi/p)^1.5.
double self_overlap(const Shell& s, int col, CartExp e) {
    auto moment = [](int n, double p) {
        double df = 1;
        for (int k = 2 * n - 1; k > 1; k -= 2) df *= k;
        return df / std::pow(2 * p, n);
    };
    double sum = 0;
    for (int i = 0; i < s.nprim; ++i)
        for (int k = 0; k < s.nprim; ++k) {
            const double p = s.exponent(i) + s.exponent(k);
            sum += s.coef(i, col) * s.coef(k, col) * (*s.prefact)[i] * (*s.prefact)[k] * std::pow(kPi / p, 1.5) *
                   moment(e.x, p) * moment(e.y, p) * moment(e.z, p);
        }
    return sum;
}

std::vector<Shell> read(Molecule& mol, const std::string& body) {
    TempJob job;
    job.write(".basis", basis_file(body));
    read_basis(mol, job.path(".basis"));
    return mol.shells;
}

}  // namespace

// A single primitive of any type keeps the sign of its coefficient and
// becomes F a^(l/2): S = c^2 K / 2^(l+3/2), so N = 1/|c| up to the tabled
// K, whose 11 significant digits leave a relative error below 1e-11.
TEST(BasisNormalisation, SinglePrimitiveBecomesFTimesPowerOfExponent) {
    const double a = 1.7;
    for (int type = 1; type <= 12; ++type) {
        if (type == 3) continue;
        std::vector<double> d = {a, -0.37};
        normalise_shell_data(type, 1, 1, d);
        const double expected = -kNormF[type] * std::pow(a, kAngular[type] / 2.0);
        EXPECT_NEAR(d[1], expected, 1e-11 * std::fabs(expected)) << "type " << type;
    }
}

// Contracted shells whose F makes a normalised function: s, the p
// components and the d xy component integrate to 1 (1e-9: the tabled K
// constants carry 11 significant digits). The d6 xx component is 3 times
// larger by the format's choice of F.
TEST(BasisNormalisation, ContractedShellsIntegrateToOne) {
    auto owner = molecule_with({"O"}, 3, 1 + 3 + 6);
    Molecule& mol = *owner;
    auto shells = read(mol,
                       "for O\n"
                       "s 5484.6717 0.0018311\n  825.23495 0.0139501\n  188.04696 0.0684451\n"
                       "p 15.539616 0.0708743\n  3.5999336 0.3397528\n  1.0137618 0.7271586\n"
                       "d6 2.1 0.4\n 0.5 0.7\n");
    ASSERT_EQ(shells.size(), 3u);
    EXPECT_NEAR(self_overlap(shells[0], 0, {0, 0, 0}), 1.0, 1e-9);
    EXPECT_NEAR(self_overlap(shells[1], 0, {1, 0, 0}), 1.0, 1e-9);
    EXPECT_NEAR(self_overlap(shells[1], 0, {0, 0, 1}), 1.0, 1e-9);
    EXPECT_NEAR(self_overlap(shells[2], 0, {1, 1, 0}), 1.0, 1e-9);
    EXPECT_NEAR(self_overlap(shells[2], 0, {2, 0, 0}), 3.0, 3e-9);
    // prefact = (2/pi)^(3/4) a^(3/4)
    EXPECT_NEAR((*shells[0].prefact)[1], std::pow(2 * 825.23495 / kPi, 0.75), 1e-9);
}

TEST(BasisNormalisation, SpShellNormalisesSAndPColumnsSeparately) {
    auto owner = molecule_with({"C"}, 1, 4);
    Molecule& mol = *owner;
    auto shells = read(mol, "for C\nl 3.66 -0.39 0.24\n 0.77 1.2 0.86\n");
    ASSERT_EQ(shells.size(), 1u);
    const Shell& s = shells[0];
    EXPECT_EQ(s.type, 3);
    EXPECT_EQ(s.ngc, 1);
    EXPECT_EQ(s.size, 4);
    EXPECT_NEAR(self_overlap(s, 0, {0, 0, 0}), 1.0, 1e-9);
    EXPECT_NEAR(self_overlap(s, 1, {0, 1, 0}), 1.0, 1e-9);
}

// 3 primitive lines holding 9 numbers: (9 - 3) / 3 = 2 contractions on
// shared exponents, each column normalised on its own.
TEST(BasisNormalisation, GeneralContractionGivesTwoColumns) {
    auto owner = molecule_with({"N"}, 2, 2 + 3);
    Molecule& mol = *owner;
    auto shells = read(mol, "for N\ns 30.0 0.1 0.0\n 5.0 0.5 -0.3\n 1.0 0.6 1.1\np 0.8 1.0\n");
    ASSERT_EQ(shells.size(), 2u);
    EXPECT_EQ(shells[0].ngc, 2);
    EXPECT_EQ(shells[0].nprim, 3);
    EXPECT_NEAR(self_overlap(shells[0], 0, {0, 0, 0}), 1.0, 1e-9);
    EXPECT_NEAR(self_overlap(shells[0], 1, {0, 0, 0}), 1.0, 1e-9);
    EXPECT_EQ(shells[1].nfirst, 3);  // after 2 s functions
}

// s, d, d6, g after sorting: 1 + 5 + 6 + 9 functions, numbered in order.
TEST(BasisNumbering, SphericalAndCartesianSizes) {
    auto owner = molecule_with({"Fe"}, 4, 21);
    Molecule& mol = *owner;
    TempJob job;
    job.write(".basis", basis_file("for Fe\ng 0.9 1.0\nd6 1.1 1.0\nd 2.0 1.0\ns 3.0 1.0\n"));
    ASSERT_TRUE(read_basis(mol, job.path(".basis")));
    sort_shells(mol);
    const int types[4] = {1, 4, 5, 11}, firsts[4] = {1, 2, 7, 13}, sizes[4] = {1, 5, 6, 9};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(mol.shells[i].type, types[i]);
        EXPECT_EQ(mol.shells[i].nfirst, firsts[i]);
        EXPECT_EQ(mol.shells[i].size, sizes[i]);
    }
}

// Labels lose their digits (H1 -> H); an atom whose label matches no entry
// gets no shells; same-label atoms share one normalised copy.
TEST(BasisNumbering, LabelsMatchWithoutDigitsAndShareData) {
    auto owner = molecule_with({"H1", "Xq", "H22"}, 4, 4);
    Molecule& mol = *owner;
    auto shells = read(mol, "for H\ns 1.3 0.8\ns 0.2 0.5\n");
    ASSERT_EQ(shells.size(), 4u);
    EXPECT_EQ(shells[0].center, &mol.atoms[0]);
    EXPECT_EQ(shells[1].center, &mol.atoms[2]);
    EXPECT_EQ(shells[0].basdat, shells[1].basdat);
    EXPECT_EQ(shells[0].prefact, shells[1].prefact);
    // Normalised once: a single primitive s coefficient is exactly 1.
    EXPECT_NEAR(shells[0].coef(0, 0), 1.0, 1e-11);
    EXPECT_EQ(shells[3].nfirst, 4);
}

// Reference: the literal repeated adjacent-swap passes.
TEST(BasisSort, MatchesRepeatedAdjacentSwaps) {
    auto owner = molecule_with({"H", "C", "O", "Fe"}, 0, 0);
    Molecule& mol = *owner;
    std::mt19937 rng(7);
    for (int trial = 0; trial < 200; ++trial) {
        std::vector<Shell> shells(12);
        for (std::size_t i = 0; i < shells.size(); ++i) {
            Shell& s = shells[i];
            s.type = 1 + static_cast<int>(rng() % 5);
            s.nprim = 1 + static_cast<int>(rng() % 3);
            s.ngc = 1;
            s.size = kShellSize[s.type];
            s.nfirst = static_cast<int>(i);  // identity tag
            s.center = &mol.atoms[rng() % 4];
        }
        std::vector<Shell> ref = shells;
        for (bool swapped = true; swapped;) {
            swapped = false;
            for (std::size_t i = 0; i + 1 < ref.size(); ++i) {
                const Shell &a = ref[i], &b = ref[i + 1];
                const bool keep = b.type > a.type || (b.type == a.type && b.nprim < a.nprim) ||
                                  (b.type == a.type && b.nprim == a.nprim &&
                                   b.center->atomic_number <= a.center->atomic_number);
                if (!keep) {
                    std::swap(ref[i], ref[i + 1]);
                    swapped = true;
                }
            }
        }
        mol.shells = shells;
        sort_shells(mol);
        int next = 1;
        for (std::size_t i = 0; i < ref.size(); ++i) {
            ASSERT_EQ(mol.shells[i].center, ref[i].center) << trial;
            ASSERT_EQ(mol.shells[i].type, ref[i].type);
            ASSERT_EQ(mol.shells[i].nprim, ref[i].nprim);
            ASSERT_EQ(mol.shells[i].nfirst, next);
            next += ref[i].size;
        }
    }
}

TEST(BasisReject, FilesThatCannotGiveTheAnnouncedBasis) {
    struct Case {
        const char* what;
        int nshell, nbasis;
        const char* body;
        const char* message;
    } cases[] = {
        {"more shells than $nshell", 1, 2, "for H\ns 1.0 1.0\ns 0.5 1.0\n", "more shells than $nshell"},
        {"functions differ from $nbasis", 2, 5, "for H\ns 1.0 1.0\np 0.5 1.0\n", "$nbasis is 5"},
        {"spherical i", 1, 13, "for H\ni 1.0 1.0\n", "spherical i"},
        {"a word that is no number", 1, 1, "for H\ns 1.0 x1\n", "is not a number"},
        {"numbers before any label", 1, 1, "for H\n 1.0 1.0\n", "numbers outside a shell"},
        {"blank line inside a shell", 1, 1, "for H\ns 1.0 1.0\n\n", "primitives and only"},
    };
    for (const Case& c : cases) {
        auto owner = molecule_with({"H"}, c.nshell, c.nbasis);
    Molecule& mol = *owner;
        TempJob job;
        job.write(".basis", basis_file(c.body));
        ::testing::internal::CaptureStdout();
        EXPECT_FALSE(read_basis(mol, job.path(".basis"))) << c.what;
        const std::string out = ::testing::internal::GetCapturedStdout();
        EXPECT_TRUE(mol.shells.empty()) << c.what;
        EXPECT_NE(out.find(c.message), std::string::npos) << c.what << ": " << out;
        EXPECT_NE(out.find(job.path(".basis")), std::string::npos) << c.what;
        EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << c.what;
    }
}

TEST(BasisReject, SilentWithoutFileSectionOrShells) {
    auto owner = molecule_with({"H"}, 1, 1);
    Molecule& mol = *owner;
    TempJob job;
    EXPECT_FALSE(read_basis(mol, job.path(".basis")));  // absent
    job.write(".basis", "$nbasis 1\nfor H\ns 1.0 1.0\n$end\n");
    EXPECT_FALSE(read_basis(mol, job.path(".basis")));  // no "$basis"
    mol.nshell = 0;
    job.write(".basis", basis_file("for H\ns 1.0 1.0\n"));
    EXPECT_FALSE(read_basis(mol, job.path(".basis")));  // $nshell 0
    EXPECT_TRUE(mol.shells.empty());
}

// The token reader ends the run (status 0) when the file stops inside the
// section, here without "$end" and inside a token.
TEST(BasisTokenDeath, EndOfFileInsideTheSectionEndsTheRun) {
    auto owner = molecule_with({"H"}, 1, 1);
    Molecule& mol = *owner;
    TempJob job;
    job.write(".basis", "$basis\nfor H\ns 1.0 1.0\n");
    EXPECT_EXIT(read_basis(mol, job.path(".basis")), ::testing::ExitedWithCode(0), "");
    job.write(".basis", "$basis\nfor H\ns 1.0 1.0\n$end");
    EXPECT_EXIT(read_basis(mol, job.path(".basis")), ::testing::ExitedWithCode(0), "");
}

TEST(BasisTokenReader, ReportsLineEndsSeparately) {
    TempJob job;
    job.write(".t", "  s\t1.5 \n\n x\n");
    FILE* f = std::fopen(job.path(".t").c_str(), "r");
    std::string w;
    std::vector<std::string> seen;
    for (int i = 0; i < 6; ++i)
        seen.push_back(next_basis_token(f, w) == BasisToken::LineEnd ? "<nl>" : w);
    std::fclose(f);
    EXPECT_EQ(seen, (std::vector<std::string>{"s", "1.5", "<nl>", "<nl>", "x", "<nl>"}));
}
