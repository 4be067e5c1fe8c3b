// kalvex-cube: Gaussian cube file from a property file and the job's atoms.
#include "view/cube.h"

int main(int argc, char** argv) { return kvx::view::run_cube(argc, argv); }
