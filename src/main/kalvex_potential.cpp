// kalvex-potential: the electrostatic potential at a list of points.
#include "chelp/potential.h"

int main(int argc, char** argv) { return kvx::chelp::run_potential(argc, argv); }
