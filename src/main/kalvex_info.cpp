// kalvex-info: the job's atoms, basis, orbitals and default grid.
#include "main/job_info.h"

int main(int argc, char** argv) { return kvx::main::run_info(argc, argv); }
