// kalvex-potential: the electrostatic potential at a list of points.
#pragma once

#include <string>
#include <vector>

namespace kvx::chelp {

// Points read from a text file: x y z per line, blank lines and '#'
// comments allowed.
struct PointList {
    std::vector<double> xyz;  // as written in the file
    std::string error;        // "FILE, line N: ..." or "cannot read FILE"; empty on success
};
PointList read_point_list(const std::string& path);

// kalvex-potential JOB POINTS [OUT] [--angstrom] [-thresh T] [-memmax MB]
// [-numt N]: OUT (default POINTS.esp) gets x y z V lines; 0 on success, 1
// with one message on standard error (and nothing written) otherwise.
int run_potential(int argc, char** argv);

}  // namespace kvx::chelp
