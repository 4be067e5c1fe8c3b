// kalvex-cube and kalvex-slice take a property file only with the job it was
// computed from: files kalvex writes on all kinds of grids pass the check
// with their own job and fail it with a twin job of the same atoms whose
// wavefunction differs (orbitals 5 and 6 exchanged); the tools refuse such a
// file with a message naming both, and --any-job takes it anyway.
#include "view/stamp_check.h"

#include <gtest/gtest.h>

#include <utility>

#include "moldata/orbitals.h"
#include "moldata/reader.h"
#include "view/tool_io.h"
#include "view_run.h"

namespace kvx::viewtest {
namespace {

using view::StampFit;

class StampCheck : public ::testing::Test {
protected:
    WaterDir d;
    void SetUp() override {
        // The twin: the same files, the fifth and sixth orbitals exchanged.
        for (const char* ext : {".control", ".coord", ".basis"})
            fs::copy_file(d.path() / (std::string("water") + ext), d.path() / (std::string("twin") + ext));
        auto mol = moldata::build_molecule((d.path() / "water").string()).molecule;
        ASSERT_TRUE(mol && mol->alpha && mol->alpha->count >= 6);
        moldata::OrbitalSet& set = *mol->alpha;
        for (int k = 0; k < set.coef.cols; ++k) std::swap(set.coef.row(4)[k], set.coef.row(5)[k]);
        ASSERT_TRUE(moldata::write_binary_orbitals((d.path() / "twin.mos").string(), set));
    }
    view::JobView job(const char* name) const {
        view::JobView jv;
        std::string error;
        EXPECT_TRUE(view::read_job((d.path() / name).string(), jv, error)) << error;
        return jv;
    }
    StampFit fit(const std::string& file, const view::JobView& jv) const {
        view::PropertyFile pf;
        std::string error;
        EXPECT_TRUE(view::read_property_file((d.path() / file).string(), view::ValueOrder::kXFastest, pf, error))
            << error;
        return view::check_job_stamp(pf, jv.atoms, jv.density_checksum);
    }
};

TEST_F(StampCheck, FilesOfEveryKindOfGridBelongToTheirJobOnly) {
    const view::JobView water = job("water"), twin = job("twin");
    ASSERT_NE(water.density_checksum, twin.density_checksum);
    struct Run {
        const char* args;
        const char* file;
    };
    const Run runs[] = {
        {"-base a -den", "a-den.grid"},  // the default 30^3 box
        {"-base b -xp 7 -yp 9 -zp 11 -moa 3", "b-moa-3.grid"},
        {"-base c -xp 6 -yp 6 -zp 6 -moacc 1e-8 -dena", "c-dena.grid"},
        {"-base e -xp 6 -yp 6 -zp 6 -thresh 3e-9 -ep", "e-ep.grid"},
        {"-base f -xs -6.25 -xl 12.5 -ys -7.123456 -yl 14.125 -zp 5 -spin", "f-spin.grid"},
        {"-base g -xp 2 -xr 0.9 -yp 1 -yr 1.1 -zp 0 -zr 1.3 -den", "g-den.grid"},
        {"-base h -xp 2 -xr 0.7 -xs -6.3 -xl 12.4 -yp 5 -zp 5 -den", "h-den.grid"},
        {"-base i -xp 150 -yp 3 -zp 4 -xl 12.3456 -partd 1 1-3 1", "i-partd.grid"},
    };
    for (const Run& r : runs) {
        ASSERT_EQ(d.kalvex(r.args).status, 0) << r.args;
        ASSERT_TRUE(fs::exists(d.path() / r.file)) << r.args;
        EXPECT_EQ(fit(r.file, water), StampFit::kMatches) << r.args;
        EXPECT_EQ(fit(r.file, twin), StampFit::kOtherJob) << r.args;
    }
    // Without a density the stamps carry kalvex's process id: nothing to check by.
    for (const char* ext : {".control", ".coord", ".basis"})
        fs::copy_file(d.path() / (std::string("water") + ext), d.path() / (std::string("bare") + ext));
    EXPECT_EQ(fit("a-den.grid", job("bare")), StampFit::kUnchecked);
}

TEST_F(StampCheck, ToolsRefuseAnotherJobsFileNamingBoth) {
    ASSERT_EQ(d.kalvex("-base w -xp 7 -yp 9 -zp 11 -den -ep").status, 0);
    const view::JobView twin = job("twin");
    view::PropertyFile pf;
    std::string error;
    ASSERT_TRUE(view::read_property_file((d.path() / "w-den.grid").string(), view::ValueOrder::kXFastest, pf, error));
    const std::string says = "w-den.grid belongs to another job, not to twin: its stamp " + std::to_string(pf.stamp) +
                             " fits no grid Kalvex builds for twin (density checksum " +
                             std::to_string(twin.density_checksum) + "); --any-job uses it anyway";
    expect_refusals(d, "kalvex-cube", {{"twin w-den.grid out.cube", says}});
    expect_refusals(d, "kalvex-slice", {{"twin w-den.grid --plane z=0 out.svg", says}});
    EXPECT_EQ(d.run(tool("kalvex-cube") + " twin w-den.grid out.cube --any-job").status, 0);
    EXPECT_EQ(d.run(tool("kalvex-slice") + " twin w-ep.grid --plane z=0 out.svg --any-job").status, 0);
    EXPECT_EQ(d.run(tool("kalvex-cube") + " water w-den.grid mine.cube").status, 0);
}

}  // namespace
}  // namespace kvx::viewtest
