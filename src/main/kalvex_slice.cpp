// kalvex-slice: SVG picture of one grid plane of a property file.
#include "view/slice.h"

int main(int argc, char** argv) { return kvx::view::run_slice(argc, argv); }
