// kalvex-import: Molden or formatted-checkpoint file to a Kalvex job.
#include "import/import.h"

int main(int argc, char** argv) { return kvx::import::run_import(argc, argv); }
