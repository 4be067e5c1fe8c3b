// Reading Kalvex property files (".grid") back, and what their names say.
//
// A property file: stamp; first grid point; step lengths; counts; then one
// value per line, x fastest (the default) or in storage order (z fastest).
// In memory the values are always held x outermost, z innermost:
//   values[(ix * ny + iy) * nz + iz].
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kvx::view {

enum class ValueOrder { kXFastest, kStorage };

struct PropertyFile {
    uint32_t stamp = 0;
    double origin[3] = {0, 0, 0};  // bohr
    double step[3] = {0, 0, 0};    // bohr, > 0 along every axis with more than one point
    int count[3] = {1, 1, 1};
    std::vector<double> values;    // x outermost, z innermost

    std::size_t index(int ix, int iy, int iz) const {
        return (static_cast<std::size_t>(ix) * count[1] + iy) * count[2] + iz;
    }
    double at(int ix, int iy, int iz) const { return values[index(ix, iy, iz)]; }
    double coordinate(int axis, int i) const { return origin[axis] + i * step[axis]; }
};

// Reads path. On failure returns false and sets error to one line naming the
// file (and the line, where one is at fault).
bool read_property_file(const std::string& path, ValueOrder order, PropertyFile& out, std::string& error);

// What a property file holds, taken from the known words at the end of its
// name: "BASE-moa-3.grid" is {"moa", 3}. word is empty when nothing matches.
struct PropertyName {
    std::string word;  // a file word of moldata::kPropertyWords ("moa"); empty when none
    int orbital = 0;   // for moa, mob, loa, lob, nos
    std::string label() const { return orbital > 0 ? word + "-" + std::to_string(orbital) : word; }
};
PropertyName property_name_of(const std::string& path);

// Orbitals, spin densities and the potential change sign; densities do not.
bool is_signed_property(const std::string& word);

// "alpha orbital 3", "total density", ...; empty for an unknown word.
std::string describe_property(const PropertyName& name);

// The description with Kalvex's definition, for the comment line of a cube
// file: densities without the cross terms between shells (and, for a
// closed-shell job, alpha and spin densities equal to the total density),
// orbitals with the displacement atom minus point. Empty for an unknown word.
std::string define_property(const PropertyName& name, bool closed_shell);

}  // namespace kvx::view
