// kalvex-charges: CHELPG, Merz-Kollman and RESP charges fitted to the potential.
#include "chelp/charges.h"

int main(int argc, char** argv) { return kvx::chelp::run_charges(argc, argv); }
