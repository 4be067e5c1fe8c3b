// Putting a new job in the place of an earlier one of the same name, all or
// nothing: afterwards every job file is the new job's, or every one is the
// earlier job's as it was.
#pragma once

#include <string>
#include <vector>

namespace kvx::import {

// Moves new_job + ext over jobname + ext for each ext of `written`, and takes
// away jobname + ext for each ext of `stale` that exists. The earlier files
// are first moved into aside_dir (made here, on the job's file system; the
// caller removes it); when any move fails, the files moved are put back and
// ImportError is thrown. A folder in the place of a job file refuses the
// import before anything moves. SIGTERM, SIGHUP and SIGINT wait until the
// files are all of one job. Returns the stale files taken away.
std::vector<std::string> replace_job_files(const std::string& new_job, const std::string& jobname,
                                           const std::vector<std::string>& written,
                                           const std::vector<std::string>& stale, const std::string& aside_dir);

}  // namespace kvx::import
