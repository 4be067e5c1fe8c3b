// Whether a property file belongs to the job it is shown with. Its stamp is
// the job's part (the density checksum) chained with the grid's part and
// the accuracy's. The job is known exactly, the grid only from the file's
// header, printed with six decimals; so the grids kalvex can have built are
// rebuilt from the header: on every axis the default box or a box typed
// with up to six decimals for its start and four for its edge (with the
// file's point count), or the spacing mode (counts of 2 or less) with the
// default or a one-decimal box; and -moacc or -thresh one digit times a
// power of ten. A stamp that none of these gives belongs to another job.
#pragma once

#include <cstdint>
#include <vector>

#include "moldata/molecule.h"
#include "view/property_file.h"

namespace kvx::view {

enum class StampFit {
    kMatches,    // the job's part with a grid and accuracy kalvex builds
    kOtherJob,   // no grid kalvex builds gives the stamp with this job
    kUnchecked,  // the job has no density checksum: its stamps carry a process id
};

// The accuracy is -thresh for the potential and -moacc for the others; both
// take the same values.
StampFit check_job_stamp(const PropertyFile& pf, const std::vector<moldata::Atom>& atoms,
                         std::uint32_t density_checksum);

}  // namespace kvx::view
