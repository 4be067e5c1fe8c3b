// One grid plane of a property file: which plane, its values, its colour
// scale and contour levels, the atoms near it; drawn as SVG by slice_svg.
#pragma once

#include <string>
#include <vector>

#include "moldata/molecule.h"
#include "view/colour.h"
#include "view/contour.h"
#include "view/property_file.h"

namespace kvx::view {

// "z=0.5", "Y=-1", "x=2e-1": axis 0..2 and a finite value.
struct PlaneRequest {
    int axis = 2;
    double value = 0;
    std::string value_text;  // as typed, for the default output name
};
bool parse_plane_request(const std::string& text, PlaneRequest& out);

// Index of the grid plane perpendicular to axis nearest to value, clamped to
// the grid (ties go to the lower plane).
int nearest_plane(const PropertyFile& pf, int axis, double value);

struct Slice {
    int axis = 2;               // normal of the plane
    int index = 0;              // 0-based plane number along axis
    int h_axis = 0, v_axis = 1; // picture axes: x-y for z planes, x-z for y planes, y-z for x planes
    double coordinate = 0;      // of the plane along axis, bohr
    Plane plane;                // i along h_axis, j along v_axis
    double min = 0, max = 0;
};
// False when the plane has fewer than two points along a picture axis.
bool take_slice(const PropertyFile& pf, int axis, int index, Slice& out);

struct ColourScale {
    ColourMap map = ColourMap::kDiverging;
    bool logarithmic = false;  // colours linear in log10(value) between lo and hi
    double lo = 0, hi = 0;     // values at the two ends of the colour bar
    bool clipped = false;      // the range was cut short of the plane's values on purpose
    std::vector<double> levels;  // contour levels, ascending
    std::vector<double> ticks;   // labelled values on the colour bar, ascending
    // Position of a value on the bar: 0 at lo, 1 at hi (unclamped).
    double position(double value) const;
};
// Signed properties get a diverging map symmetric about zero over the plane's
// largest magnitude; the potential, unbounded at the nuclei, is clipped at a
// round value that still shows all of its negative region. Densities get a
// logarithmic map from the plane's maximum down to 1e-3 (or three decades
// below a smaller maximum).
ColourScale choose_scale(const Slice& s, bool signed_property, bool potential);

struct AtomMark {
    int number = 0;      // 1-based atom number in the job
    std::string symbol;  // element symbol
    double h = 0, v = 0; // picture coordinates, bohr
    double distance = 0; // signed distance from the plane, bohr
};
// Atoms within `within` bohr of the plane and inside its rectangle.
std::vector<AtomMark> atoms_near_plane(const Slice& s, const PropertyFile& pf, const std::vector<moldata::Atom>& atoms,
                                       double within = 1.0);

struct SliceView {
    std::string job;      // job name shown in the title
    std::string property; // "moa-3"
    std::string description;  // "alpha orbital 3"
    const PropertyFile* pf = nullptr;
    Slice slice;
    ColourScale scale;
    std::vector<AtomMark> atoms;
};
std::string slice_svg(const SliceView& view);

// kalvex-slice JOB FILE.grid --plane z=VALUE [OUT.svg] [--storage-order];
// 0 on success, 1 with one message on standard error otherwise.
int run_slice(int argc, char** argv);

}  // namespace kvx::view
