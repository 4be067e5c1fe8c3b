// kalvex: command-line entry point.
#include "main/driver.h"

int main(int argc, char** argv) { return kvx::main::run(argc, argv); }
