// Molecule builder: the multi-file layout, the one-file fallback, counts,
// coordinates and their warnings, on the hand-made H2 job of tests/data/h2.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>

#include "job_files.h"
#include "moldata/reader.h"
#include "moldata/symbols.h"

using namespace kvx::moldata;
using kvx::testing::OrbitalFile;
using kvx::testing::TempJob;

namespace {

const std::string kH2 = KVX_TEST_DATA "/h2/h2";

// The H2 job with its occupied orbital (0.5, 0.5) and a virtual one.
void write_h2(const TempJob& job) {
    job.copy_from(kH2, {".control", ".coord", ".basis", ".sym"});
    OrbitalFile mos;
    mos.orbitals = {{0.5, 0.5}, {0.75, -0.75}};
    mos.energies = {-0.5, 0.25};
    job.write_bytes(".mos", mos.bytes());
}

std::string captured(const std::function<void()>& f) {
    ::testing::internal::CaptureStdout();
    f();
    return ::testing::internal::GetCapturedStdout();
}

}  // namespace

TEST(MoleculeBuilder, MultiFileH2) {
    TempJob job;
    write_h2(job);
    std::unique_ptr<Molecule> mol;
    EXPECT_EQ(captured([&] { mol = build_molecule(job.job()); }), "");
    ASSERT_TRUE(mol);
    EXPECT_EQ(mol->name, job.job());
    EXPECT_EQ(mol->natoms, 2);
    EXPECT_EQ(mol->nbasis, 2);
    EXPECT_EQ(mol->nbits, 32);
    EXPECT_EQ(mol->intsize, 2);
    EXPECT_EQ(mol->ndummy, (std::array<int, 2>{0, 0}));
    EXPECT_EQ(mol->restricted, 1);
    EXPECT_DOUBLE_EQ(mol->atoms[1].z, 0.7);
    EXPECT_EQ(mol->atoms[1].molecule, 1);
    ASSERT_EQ(mol->shells.size(), 2u);
    EXPECT_NEAR(mol->shells[0].coef(0, 0), 1.0, 1e-11);  // 2.5 normalised
    ASSERT_TRUE(mol->density);
    for (int i = 0; i < 2; ++i)
        for (int j = 0; j <= i; ++j) EXPECT_EQ(mol->density->at(i, j), 0.5);
    EXPECT_EQ(static_cast<std::uint32_t>(mol->density_checksum), 0x0002A0BDu);
    ASSERT_TRUE(mol->symmetry);
    EXPECT_EQ(mol->symmetry->group, "ci");
    // Two normalised unit-exponent s functions 1.4 bohr apart overlap by
    // exp(-(1 * 1 / 2) 1.4^2).
    ASSERT_TRUE(mol->overlap);
    EXPECT_NEAR(mol->overlap->at(1, 0), std::exp(-0.5 * 1.96), 1e-9);
    ASSERT_TRUE(mol->flags);
    EXPECT_EQ(mol->flags->f, (std::array<int, 7>{1, 1, 0, 0, 0, 0, 1}));
}

// Without "$natoms" the control file does not count: the one-file layout is
// read instead, and gives the same molecule.
TEST(MoleculeBuilder, FallsBackToOneFileLayout) {
    TempJob job;
    write_h2(job);
    job.copy_from(kH2, {".kvm"});
    job.write(".control", "$nmol 1\n$nalpha 1\n$end\n");
    auto mol = build_molecule(job.job());
    ASSERT_TRUE(mol);
    ASSERT_EQ(mol->natoms, 2);
    EXPECT_EQ(mol->atoms[0].symbol, "h");
    EXPECT_EQ(mol->atoms[0].atomic_number, 1);
    EXPECT_EQ(mol->atoms[0].nuclear_charge, 1.0);
    EXPECT_EQ(mol->atoms[1].molecule, 1);
    EXPECT_EQ(mol->nbasis, 2);
    EXPECT_EQ(mol->nshell, 2);
    EXPECT_EQ(mol->nprim, 2);
    ASSERT_EQ(mol->shells.size(), 2u);
    EXPECT_EQ(mol->shells[1].nfirst, 2);
    EXPECT_NEAR(mol->shells[0].coef(0, 0), 1.0, 1e-11);
    ASSERT_TRUE(mol->alpha);
    EXPECT_EQ(mol->alpha->count, 2);
    EXPECT_EQ(mol->alpha->coef.row(0)[1], 0.5);
    EXPECT_EQ(mol->alpha->coef.row(1)[1], -0.75);
    EXPECT_EQ(mol->alpha->energy[0], -0.5);
    ASSERT_TRUE(mol->localized);
    EXPECT_EQ(mol->localized->count, 1);
    EXPECT_FALSE(mol->symmetry);
    // Same orbitals, same density bits, same checksum as the binary layout.
    EXPECT_EQ(static_cast<std::uint32_t>(mol->density_checksum), 0x0002A0BDu);
}

TEST(MoleculeBuilder, NothingToReadGivesNoMolecule) {
    TempJob job;
    EXPECT_FALSE(build_molecule(job.job()));
    job.write(".control", "$natoms -666\n");  // the sentinel reads as missing
    EXPECT_FALSE(build_molecule(job.job()));
}

// A control file with "$natoms" keeps the multi-file record even when its
// atoms cannot be read: no fallback, no data.
TEST(MoleculeBuilder, UnreadableCoordinatesKeepAnEmptyRecord) {
    TempJob job;
    write_h2(job);
    job.copy_from(kH2, {".kvm"});
    job.write(".coord", "$coordinates\nH 0 0 0 1 1\n");  // no "$end"
    auto mol = build_molecule(job.job());
    ASSERT_TRUE(mol);
    EXPECT_FALSE(mol->has_atoms());
    EXPECT_FALSE(mol->has_shells());
    EXPECT_FALSE(mol->density);
    EXPECT_EQ(mol->flags->f, (std::array<int, 7>{0, 0, 0, 0, 0, 0, 0}));
}

TEST(Counts, KeywordsDefaultsAndSentinel) {
    TempJob job;
    job.write(".control",
              "$natoms 2 $ndummy 1 1\n$nbits 64 $intsize 1 $charge -1\n$multiplicity 1 $nbeta 0\n"
              "$nalpha 3\n$nalpha 9\n");
    job.write(".basis", "$nshell 4\n$nprim -666\n");
    auto mol = read_counts(job.job());
    ASSERT_TRUE(mol);
    EXPECT_EQ(mol->natoms, 2);
    EXPECT_EQ(mol->ndummy, (std::array<int, 2>{1, 1}));
    EXPECT_EQ(mol->nbits, 64);
    EXPECT_EQ(mol->intsize, 1);
    EXPECT_EQ(mol->charge, -1);
    EXPECT_EQ(mol->nalpha, 3);  // first occurrence wins
    EXPECT_EQ(mol->nmol, 1);
    EXPECT_EQ(mol->nshell, 4);
    EXPECT_EQ(mol->nprim, 0);
    EXPECT_EQ(mol->nbasis, 0);
    EXPECT_EQ(mol->restricted, 1);
    job.write(".control", "$natoms 2\n$multiplicity 3\n");
    EXPECT_EQ(read_counts(job.job())->restricted, 0);
}

TEST(Coordinates, WarningsOnCounts) {
    struct Case {
        int nmol, natoms;
        const char* atoms;
        const char* out;
        int kept;
    } cases[] = {
        {1, 3, "O 0 0 0 8 16\nH 1 0 0 1 1\n", "Read_atomdata warning: expected 3 atom(s), got 2\n", 2},
        {2, 2, "O 0 0 0 8 16\n$molecule\nH 1 0 0 1 1\n", "", 2},
        {2, 2, "O 0 0 0 8 16\nH 1 0 0 1 1\n", "Read_atondata warning: expected 2 molecule(s), got 1\n", 2},
        {1, 3, "O 0 0 0 8 16\n$molecule\nH 1 0 0 1 1\n",
         "Read_atondata warning: expected 1 molecule(s), got 2\n"
         "Read_atomdata warning: expected 3 atom(s), got 2\n",
         2},
    };
    for (const Case& c : cases) {
        TempJob job;
        job.write(".coord", std::string("junk before\n$coordinates\n") + c.atoms + "$end\n");
        Molecule mol;
        mol.nmol = c.nmol;
        mol.natoms = c.natoms;
        EXPECT_EQ(captured([&] { read_coordinates(mol, job.path(".coord")); }), c.out);
        EXPECT_EQ(mol.natoms, c.kept);
        EXPECT_EQ(static_cast<int>(mol.atoms.size()), c.kept);
    }
}

TEST(Coordinates, MoleculeNumbersAndLongLabels) {
    TempJob job;
    job.write(".coord", "$coordinates\nCarbon123x 0 0 0 6 12\n$molecule\nHe1 1 2 3 2 4\n$end\n");
    Molecule mol;
    mol.nmol = 2;
    mol.natoms = 2;
    read_coordinates(mol, job.path(".coord"));
    ASSERT_EQ(mol.atoms.size(), 2u);
    EXPECT_EQ(mol.atoms[0].symbol, "Carbon12");
    EXPECT_EQ(mol.atoms[0].molecule, 1);
    EXPECT_EQ(mol.atoms[1].molecule, 2);
    EXPECT_EQ(mol.atoms[1].atomic_number, 0);  // "He1" matches nothing
    EXPECT_EQ(mol.atoms[1].nuclear_charge, 2.0);
}

TEST(CoordinatesDeath, MoreAtomsThanAnnouncedEndsTheRun) {
    TempJob job;
    job.write(".coord", "$coordinates\nH 0 0 0 1 1\nH 0 0 1 1 1\n$end\n");
    Molecule mol;
    mol.natoms = 1;
    EXPECT_EXIT(read_coordinates(mol, job.path(".coord")), ::testing::ExitedWithCode(0), "");
}

TEST(Symbols, AtomicNumberLookup) {
    EXPECT_EQ(atomic_number("H"), 1);
    EXPECT_EQ(atomic_number("H1"), 1);
    EXPECT_EQ(atomic_number("C12"), 6);
    EXPECT_EQ(atomic_number("CL"), 17);
    EXPECT_EQ(atomic_number("cl"), 17);
    EXPECT_EQ(atomic_number("He1"), 0);  // a third character stays
    EXPECT_EQ(atomic_number("Lr"), 103);
    EXPECT_EQ(atomic_number("Rf"), 104);
    EXPECT_EQ(atomic_number("Ha"), 105);
    EXPECT_EQ(atomic_number("Db"), 105);
    EXPECT_EQ(atomic_number("Xx"), 0);
    EXPECT_EQ(atomic_number(""), 0);
    EXPECT_EQ(atomic_number("Q"), 0);
}

TEST(Symbols, ReverseLookupAndBasisLabels) {
    EXPECT_EQ(element_symbol(8), "O");
    EXPECT_EQ(element_symbol(17), "Cl");
    EXPECT_EQ(element_symbol(17, -1), "cl");
    EXPECT_EQ(element_symbol(17, 1), "CL");
    EXPECT_EQ(element_symbol(1, 1), "H");
    EXPECT_EQ(element_symbol(0), "Xx");
    EXPECT_EQ(element_symbol(106), "Xx");
    EXPECT_EQ(element_symbol(105), "Ha");
    for (int z = 1; z <= 105; ++z) EXPECT_EQ(atomic_number(element_symbol(z, z % 3 - 1)), z);
    EXPECT_EQ(basis_label("C12"), "C");
    EXPECT_EQ(basis_label("H1a2"), "Ha");
    EXPECT_EXIT(basis_label("Abcdefghi"), ::testing::ExitedWithCode(0), "");
}
