// Molecule builder on the hand-made H2 job of tests/data/h2 (multi-file and
// one-file layouts), the coordinate warnings and the symmetry table.
#include "moldata/reader.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>

#include "common/capture.h"
#include "job_files.h"
#include "moldata/symmetry.h"

using namespace kvx::moldata;
using kvx::test::captured;
using kvx::test::TempJob;

namespace {

// The hand-worked density checksum of tests/data/h2/README.md: three
// doubles 0.5, low sum 3 * 0xE03F = 0x2A0BD, carry 2 into the high half.
constexpr std::uint32_t kH2Checksum = 0x0002A0BDu;

}  // namespace

TEST(MoleculeBuilder, MultiFileH2GivesTheHandWorkedMolecule) {
    TempJob job;
    kvx::test::write_h2(job);
    std::unique_ptr<Molecule> mol;
    EXPECT_EQ(captured([&] { mol = build_molecule(job.job()).molecule; }), "");
    ASSERT_TRUE(mol && mol->density && mol->overlap && mol->symmetry && mol->flags);
    EXPECT_EQ(mol->nbasis, 2);
    EXPECT_NEAR(mol->shells[0].coef(0, 0), 1.0, 1e-11);  // 2.5 normalised
    // 2 * 0.5 * 0.5 everywhere.
    for (int i = 0; i < 2; ++i)
        for (int j = 0; j <= i; ++j) EXPECT_EQ(mol->density->at(i, j), 0.5);
    EXPECT_EQ(static_cast<std::uint32_t>(mol->density_checksum), kH2Checksum);
    // Normalised unit-exponent s functions 1.4 bohr apart: exp(-1.4^2 / 2).
    EXPECT_NEAR(mol->overlap->at(1, 0), std::exp(-0.5 * 1.96), 1e-9);
    EXPECT_EQ(mol->symmetry->group, "ci");
    EXPECT_EQ(mol->flags->f, (std::array<int, 7>{1, 1, 0, 0, 0, 0, 1}));
}

// Without "$natoms" the control file does not count and the one-file ".kvm"
// is read: orbitals listed out of order and split over lines land in their
// rows, and the density bits (hence the checksum) equal the binary layout's.
TEST(MoleculeBuilder, FallsBackToTheOneFileLayout) {
    TempJob job;
    kvx::test::write_h2(job);
    job.copy_from(kvx::test::kH2, {".kvm"});
    job.write(".control", "$nmol 1\n$nalpha 1\n$end\n");
    auto mol = build_molecule(job.job()).molecule;
    ASSERT_TRUE(mol && mol->alpha && mol->localized);
    ASSERT_EQ(mol->natoms, 2);
    ASSERT_EQ(mol->shells.size(), 2u);
    EXPECT_NEAR(mol->shells[1].coef(0, 0), 1.0, 1e-11);
    EXPECT_EQ(mol->alpha->count, 2);
    EXPECT_EQ(mol->alpha->coef.row(0)[1], 0.5);
    EXPECT_EQ(mol->alpha->coef.row(1)[1], -0.75);
    EXPECT_EQ(mol->alpha->energy[0], -0.5);
    EXPECT_EQ(mol->localized->count, 1);
    EXPECT_EQ(static_cast<std::uint32_t>(mol->density_checksum), kH2Checksum);
    // No layout at all: no molecule.
    TempJob empty;
    const MoleculeLoad none = build_molecule(empty.job());
    EXPECT_FALSE(none.molecule || none.error);
}

// The exact warning lines; what was read is kept.
TEST(Coordinates, CountMismatchesPrintTheWarningsAndKeepWhatWasRead) {
    const struct {
        int nmol, natoms, second_molecule;
        const char *atoms, *out;
    } cases[] = {
        {1, 3, 1, "O 0 0 0 8 16\nH 1 0 0 1 1\n", "Read_atomdata warning: expected 3 atom(s), got 2\n"},
        {2, 2, 2, "O 0 0 0 8 16\n$molecule\nH 1 0 0 1 1\n", ""},
        {2, 2, 1, "O 0 0 0 8 16\nH 1 0 0 1 1\n", "Read_atondata warning: expected 2 molecule(s), got 1\n"},
        {1, 3, 2, "O 0 0 0 8 16\n$molecule\nH 1 0 0 1 1\n",
         "Read_atondata warning: expected 1 molecule(s), got 2\n"
         "Read_atomdata warning: expected 3 atom(s), got 2\n"},
    };
    for (const auto& c : cases) {
        TempJob job;
        job.write(".coord", std::string("junk before\n$coordinates\n") + c.atoms + "$end\n");
        Molecule mol;
        mol.nmol = c.nmol;
        mol.natoms = c.natoms;
        EXPECT_EQ(captured([&] { EXPECT_FALSE(read_coordinates(mol, job.path(".coord"))); }), c.out);
        EXPECT_EQ(mol.natoms, 2);
        ASSERT_EQ(mol.atoms.size(), 2u);
        EXPECT_EQ(mol.atoms[1].molecule, c.second_molecule);
    }
}

// Water in C2v (E, C2, s(xz), s(yz)): O unique, H1 <-> H2 under C2 and one
// mirror; the file lists the table operation by operation.
TEST(Symmetry, ImageTableIsReadColumnByColumn) {
    TempJob job;
    job.write(".sym",
              "$ntrans 4\n$group c2v\n$sym_unique_atoms 2\n 1 2\n"
              "$equivalent_atoms_array:\n1 2 3\n1 3 2\n1 2 3\n1 3 2\n$end\n");
    Molecule mol;
    mol.natoms = 3;
    ASSERT_FALSE(read_symmetry(mol, job.path(".sym")));
    const auto& s = mol.symmetry;
    ASSERT_TRUE(s);
    EXPECT_EQ(s->ntrans, 4);
    EXPECT_EQ(s->group, "c2v");
    ASSERT_EQ(s->nunique, 2);
    EXPECT_TRUE(s->unique[0] == 1 && s->unique[1] == 2);
    const int expected[3][4] = {{1, 1, 1, 1}, {2, 3, 2, 3}, {3, 2, 3, 2}};
    for (int a = 0; a < 3; ++a)
        for (int t = 0; t < 4; ++t) EXPECT_EQ(s->image(a, t), expected[a][t]) << a << " " << t;
}
