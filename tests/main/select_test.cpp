// Orbital lists -> occupation vectors.
#include "main/select.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/capture.h"

using kvx::main::select_mos;
using kvx::moldata::Molecule;
using kvx::moldata::OrbitalSet;

namespace {

std::unique_ptr<OrbitalSet> make_set(int count) {
    auto s = std::make_unique<OrbitalSet>();
    s->count = count;
    s->valid = 1;
    s->coef.rows = count;
    s->coef.cols = 1;
    s->coef.data.assign(static_cast<std::size_t>(count), 0.0);
    return s;
}

// An open-shell molecule with 10 alpha, 10 beta and 6 natural orbitals, with
// one atom and one shell so that the availability flags are set.
struct Fixture {
    Molecule mol;
    Fixture(bool restricted) {
        mol.restricted = restricted ? 1 : 0;
        mol.nalpha = 3;
        mol.nbeta = restricted ? 0 : 2;
        mol.atoms.resize(1);
        mol.shells.resize(1);
        mol.alpha = make_set(10);
        if (!restricted) {
            mol.beta = make_set(10);
            mol.natural = make_set(6);
            mol.natural->has_energy = true;
            mol.natural->energy = {1.9, 1.5, 0.5, 5e-8, -3e-8, 0.1};
        }
        mol.flags = kvx::moldata::compute_flags(mol);
    }
};

std::vector<double> sel(const Molecule& mol, const char* list, int type, int negate = 0) {
    std::vector<char> buf;
    char* p = nullptr;
    if (list) {
        buf.assign(list, list + std::strlen(list) + 1);
        p = buf.data();
    }
    auto r = select_mos(mol, p, type, negate);
    return r ? *r : std::vector<double>{};
}

std::string captured(const Molecule& mol, const char* list, int type) {
    return kvx::test::captured([&] { sel(mol, list, type); });
}

}  // namespace

TEST(SelectMos, ListFormsSelectInclusiveOneBasedRanges) {
    Fixture f(false);
    EXPECT_EQ(sel(f.mol, "1,3-4", 1), (std::vector<double>{1, 0, 1, 1, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(sel(f.mol, "5-", 1), (std::vector<double>{0, 0, 0, 0, 1, 1, 1, 1, 1, 1}));
    EXPECT_EQ(sel(f.mol, "-3", 1), (std::vector<double>{1, 1, 1, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(sel(f.mol, "7", -1), (std::vector<double>{0, 0, 0, 0, 0, 0, 1, 0, 0, 0}));
    // A first number that is not positive selects nothing.
    EXPECT_EQ(sel(f.mol, "0-2", 1), std::vector<double>(10, 0.0));
    // An unreadable item repeats the item before it.
    EXPECT_EQ(sel(f.mol, "2,abc", 1), (std::vector<double>{0, 1, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(SelectMos, WithoutListTakesTheOccupiedOrbitals) {
    Fixture open(false);
    EXPECT_EQ(sel(open.mol, nullptr, 1), (std::vector<double>{1, 1, 1, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(sel(open.mol, nullptr, -1), (std::vector<double>{1, 1, 0, 0, 0, 0, 0, 0, 0, 0}));
    // Closed shell: two electrons per spatial orbital.
    Fixture closed(true);
    EXPECT_EQ(sel(closed.mol, nullptr, 1), (std::vector<double>{2, 2, 2, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(sel(closed.mol, "1,3-4", 1), (std::vector<double>{2, 0, 2, 2, 0, 0, 0, 0, 0, 0}));
}

TEST(SelectMos, NaturalOrbitalsCarryTheirOccupationsAndTinyOnesVanish) {
    Fixture f(false);
    EXPECT_EQ(sel(f.mol, nullptr, 0), (std::vector<double>{1.9, 1.5, 0.5, 0, 0, 0.1}));
    EXPECT_EQ(sel(f.mol, "2-4", 0), (std::vector<double>{0, 1.5, 0.5, 0, 0, 0}));
}

TEST(SelectMos, NegationTurnsSelectedEntriesNegative) {
    Fixture f(false);
    EXPECT_EQ(sel(f.mol, nullptr, -1, 1), (std::vector<double>{-1, -1, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(SelectMos, OrbitalsPastTheSetAreReportedWithZeroBasedNumbers) {
    Fixture f(false);
    // 9-12 over a set of 10: 9 and 10 set, 11 and 12 reported as 10 and 11.
    std::vector<double> v;
    const std::string out = kvx::test::captured([&] { v = sel(f.mol, "9-12", 1); });
    EXPECT_EQ(v, (std::vector<double>{0, 0, 0, 0, 0, 0, 0, 0, 1, 1}));
    EXPECT_EQ(out,
              "Kalvex select_mos; mo no. 10 cannot be included in the list\n"
              "Kalvex select_mos; mo no. 11 cannot be included in the list\n");
}

TEST(SelectMos, UnsupportedTypesAndMissingSetsFail) {
    Fixture closed(true);
    EXPECT_EQ(captured(closed.mol, nullptr, 3), "Kalvex select_mos; orbital type 3 not supported\n");
    EXPECT_EQ(captured(closed.mol, nullptr, -3), "Kalvex select_mos; orbital type -3 not supported\n");
    EXPECT_EQ(captured(closed.mol, nullptr, -1), "Beta Orbitals not available for current molecule\n");
    EXPECT_EQ(captured(closed.mol, nullptr, 0), "Natural Orbitals not available for current molecule\n");
    EXPECT_EQ(captured(closed.mol, nullptr, 2), "Localized Alpha Orbitals not available for current molecule\n");
    EXPECT_FALSE(select_mos(closed.mol, nullptr, -2, 0).has_value());
}
