#include "moldata/overlap.h"

namespace kvx::moldata {

// Placeholder until the overlap integrals land.
void add_overlap(Molecule&) {}

}  // namespace kvx::moldata
