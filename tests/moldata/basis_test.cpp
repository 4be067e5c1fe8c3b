// Basis reader: normalised contractions, label matching, data sharing,
// sorting and numbering, and rejected files.
#include "moldata/basis.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>

#include "common/capture.h"
#include "job_files.h"
#include "moldata/molecule.h"
#include "moldata/overlap.h"
#include "moldata/symbols.h"

using namespace kvx::moldata;
namespace gauss = kvx::gauss;
using kvx::test::TempJob;

namespace {

const double kPi = 3.14159265358979323846;

std::unique_ptr<Molecule> molecule_with(std::initializer_list<const char*> symbols, int nshell, int nbasis) {
    auto mol = std::make_unique<Molecule>();
    for (const char* s : symbols) {
        Atom a;
        a.symbol = s;
        a.atomic_number = atomic_number(s);
        mol->atoms.push_back(a);
    }
    mol->natoms = static_cast<int>(mol->atoms.size());
    mol->nshell = nshell;
    mol->nbasis = nbasis;
    return mol;
}

std::string basis_file(const std::string& body) { return "$nbasis 0\n$basis\n" + body + "$end\n"; }

// Shells read; a refusal of the job fails the test.
bool read(Molecule& mol, const std::string& body) {
    TempJob job;
    job.write(".basis", basis_file(body));
    const JobError e = read_basis(mol, job.path(".basis"));
    EXPECT_FALSE(e) << e.message;
    return mol.has_shells();
}

}  // namespace

// Contractions read from a file, in the quadrature-checked overlap: a
// cartesian component (ex, ey, ez) of degree l has <c|c> = F^2 4^-l
// (2ex-1)!! (2ey-1)!! (2ez-1)!! (d6: 3 for xx, 1 for xy), every spherical
// and sp function and each column of a general contraction (9 numbers on 3
// lines: two columns on shared exponents) has norm 1. 1e-9 relative: F and
// K are tabled to 10-11 digits.
TEST(BasisNormalisation, ContractionsHaveClosedFormNorms) {
    auto mol = molecule_with({"O"}, 11, 1 + 3 + 5 + 6 + 7 + 10 + 15 + 9 + 11 + 4 + 2);
    ASSERT_TRUE(read(*mol,
                     "for O\n"
                     "s 5484.6717 0.0018311\n  825.23495 0.0139501\n  188.04696 0.0684451\n"
                     "p 15.539616 0.0708743\n  3.5999336 0.3397528\n  1.0137618 0.7271586\n"
                     "d 1.7 0.5\n 0.4 0.6\nd6 2.1 0.4\n 0.5 0.7\nf 4.0 0.3\n 1.2 0.6\n 0.35 0.35\n"
                     "f10 0.9 1.1\ng15 0.7 1.0\n 0.2 0.4\ng 1.3 0.5\n 0.6 0.8\nh 0.5 0.8\n"
                     "l 3.66 -0.39 0.24\n 0.77 1.2 0.86\n"
                     "s 30.0 0.1 0.0\n 5.0 0.5 -0.3\n 1.0 0.6 1.1\n"));
    const auto& sh = mol->shells;
    ASSERT_EQ(sh.size(), 11u);
    EXPECT_EQ(sh[10].ngc, 2);
    EXPECT_EQ(sh[10].nfirst, 72);  // after 71 functions
    auto df = [](int n) { double r = 1; for (int k = n; k > 1; k -= 2) r *= k; return r; };
    for (const Shell& s : sh) {
        std::vector<double> S;
        overlap_block(s, s, S);
        const int n = s.size, ngc = s.type == 3 ? 1 : s.ngc;
        for (int g = 0; g < ngc; ++g)
            for (int i = 0; i < n; ++i) {
                const gauss::CartExp x = gauss::type_exponents(s.type, i);
                const double want = gauss::is_spherical(s.type) || s.type == 3
                                        ? 1.0
                                        : gauss::kNormF[s.type] * gauss::kNormF[s.type] *
                                              std::pow(4.0, -gauss::kAngular[s.type]) * df(2 * x.x - 1) *
                                              df(2 * x.y - 1) * df(2 * x.z - 1);
                EXPECT_NEAR(S[(g * ngc + g) * n * n + i * n + i], want, 1e-9 * want) << s.type << " " << g << " " << i;
            }
    }
    EXPECT_NEAR((*sh[0].prefact)[1], std::pow(2 * 825.23495 / kPi, 0.75), 1e-9);  // (2 a / pi)^(3/4)
}

// Labels lose their digits (H1, H22 -> H), an unmatched label gets no
// shells, same-label atoms share one normalised copy; after sorting (type
// ascending, equal shells keeping their order) functions count 1, 5, 6, 9.
TEST(BasisNumbering, LabelsShareDataAndSortedShellsAreNumberedInOrder) {
    auto mol = molecule_with({"H1", "Xq", "H22"}, 8, 2 * (9 + 6 + 5 + 1));
    ASSERT_TRUE(read(*mol, "for H\ng 0.9 1.0\nd6 1.1 1.0\nd 2.0 1.0\ns 3.0 1.0\n"));
    sort_shells(*mol);
    const auto& sh = mol->shells;
    ASSERT_EQ(sh.size(), 8u);
    const int types[8] = {1, 1, 4, 4, 5, 5, 11, 11}, firsts[8] = {1, 2, 3, 8, 13, 19, 25, 34};
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(sh[i].type, types[i]) << i;
        EXPECT_EQ(sh[i].nfirst, firsts[i]) << i;
        EXPECT_EQ(sh[i].center, &mol->atoms[i % 2 == 0 ? 0 : 2]) << i;
    }
    EXPECT_EQ(sh[0].basdat, sh[1].basdat);
    EXPECT_EQ(sh[0].prefact, sh[1].prefact);
    EXPECT_NEAR(sh[0].coef(0, 0), 1.0, 1e-11);  // normalised once only
}

TEST(BasisReject, FilesThatCannotGiveTheAnnouncedBasisGetOneMessage) {
    const struct {
        int nshell, nbasis;
        const char *body, *message;
    } cases[] = {
        {1, 2, "for H\ns 1.0 1.0\ns 0.5 1.0\n", "more shells than $nshell"},
        {2, 5, "for H\ns 1.0 1.0\np 0.5 1.0\n", "$nbasis is 5"},
        {1, 13, "for H\ni 1.0 1.0\n", "spherical i"},
        {1, 1, "for H\ns 1.0 x1\n", "is not a number"},
        {1, 1, "for H\n 1.0 1.0\n", "numbers outside a shell"},
        {1, 1, "for H\ns 1.0 1.0\n\n", "primitives and only"},
        {1, 2, "for H\ns 1.0 1.0 0.5\n", "2 contractions of 1 primitive"},
    };
    TempJob job;
    for (const auto& c : cases) {
        auto mol = molecule_with({"H"}, c.nshell, c.nbasis);
        job.write(".basis", basis_file(c.body));
        const std::string out = kvx::test::captured(
            [&] { EXPECT_FALSE(read_basis(*mol, job.path(".basis"))) << c.message; });  // rejected, not refused
        EXPECT_TRUE(mol->shells.empty()) << c.message;
        EXPECT_NE(out.find(c.message), std::string::npos) << out;
        EXPECT_NE(out.find(job.path(".basis")), std::string::npos) << out;
        EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
    }
    // Refused without a message: no file, no "$basis" section, $nshell 0.
    auto mol = molecule_with({"H"}, 1, 1);
    EXPECT_FALSE(read_basis(*mol, job.path(".absent")));
    EXPECT_FALSE(mol->has_shells());
    job.write(".basis", "$nbasis 1\nfor H\ns 1.0 1.0\n$end\n");
    EXPECT_FALSE(read_basis(*mol, job.path(".basis")));
    EXPECT_FALSE(mol->has_shells());
    mol->nshell = 0;
    EXPECT_FALSE(read(*mol, "for H\ns 1.0 1.0\n"));
}

// What refuses the whole job rather than only its basis.
TEST(BasisReject, EndOfFileInsideTheSectionOrALongLabelRefusesTheJob) {
    TempJob job;
    auto mol = molecule_with({"H"}, 1, 1);
    for (const char* text : {"$basis\nfor H\ns 1.0 1.0\n", "$basis\nfor H\ns 1.0 1.0\n$end", "$basis\nfor"}) {
        job.write(".basis", text);
        EXPECT_EQ(read_basis(*mol, job.path(".basis")).message, "1 End of file reached in Basis file") << text;
        EXPECT_FALSE(mol->has_shells());
    }
    // Digits do not count: "H123456789" is the label "H"; "Hydrogen1x" is
    // "Hydrogenx", one character too long.
    job.write(".basis", basis_file("for H\ns 1.0 1.0\n"));
    mol = molecule_with({"H123456789"}, 1, 1);
    EXPECT_FALSE(read_basis(*mol, job.path(".basis")));
    EXPECT_TRUE(mol->has_shells());
    mol = molecule_with({"Hydrogen1x"}, 1, 1);
    EXPECT_EQ(read_basis(*mol, job.path(".basis")).message, "Atomic symbol Hydrogen1x is  longer than 8 characters");
}

// What the builder will allocate for a basis: the overlap and the alpha and
// total densities (and the beta one when unrestricted), n(n+1)/2 doubles
// each, and the overlap's widest shell-pair block; a basis needing more than
// the memory at hand is rejected before any of it exists.
TEST(BasisReject, BasesWhoseMatricesExceedTheUsableMemory) {
    auto mol = molecule_with({"H", "H"}, 2, 112);  // two shells of 2 x 28 functions
    ASSERT_TRUE(read(*mol, "for H\ni28 1.0 1.0 0.5\n 0.5 0.3 1.0\n"));
    const std::uint64_t tri = 112ull * 113 / 2 * 8, block = 56ull * 56 * 8;
    EXPECT_EQ(basis_matrix_bytes(mol->shells, 112, true), 3 * tri + block);
    EXPECT_EQ(basis_matrix_bytes(mol->shells, 112, false), 4 * tri + block);
    std::string why;
    EXPECT_TRUE(basis_fits_memory(mol->shells, 112, true, 3 * tri + block, why));
    EXPECT_FALSE(basis_fits_memory(mol->shells, 112, true, 3 * tri + block - 1, why));
    EXPECT_EQ(why.rfind("112 basis functions need ", 0), 0u) << why;
}
