// Output files that appear whole or not at all. The file is written to a
// temporary TARGET.PID.XXXXXX beside its target and renamed over it when
// complete. SIGTERM and SIGHUP (and SIGINT, where it would end the process)
// during the write remove the temporary file before the process ends as the
// signal asks; what a killed process leaves (SIGKILL, a crash) is removed by
// the next write of the same target.
#pragma once

#include <csignal>
#include <cstdio>
#include <functional>
#include <string>

namespace kvx::common {

// Writes path through write(f); false with error set when write returned
// false, a byte did not reach the file or the rename failed (the target is
// then as it was). The new file gets the mode fopen would give it.
bool write_atomically(const std::string& path, const std::function<bool(std::FILE*)>& write, std::string& error);

// Holds SIGTERM, SIGHUP and SIGINT back on this thread while it lives (they
// are delivered when it goes): for a short step that must not be cut, such
// as moving a set of files into place.
class SignalsHeld {
public:
    SignalsHeld();
    ~SignalsHeld();
    SignalsHeld(const SignalsHeld&) = delete;
    SignalsHeld& operator=(const SignalsHeld&) = delete;

private:
    sigset_t old_;
};

// Removes the temporaries of path (path.PID.XXXXXX, regular files) whose
// process is gone and whose lock no process holds; returns how many.
int remove_stale_temporaries(const std::string& path);

}  // namespace kvx::common
