// Job driver: start-up, the request loop and the end of the run.
#pragma once

namespace kvx::main {

// Program entry; returns 0 (a job the readers refuse and fatal errors also
// end with status 0).
int run(int argc, char** argv);

}  // namespace kvx::main
