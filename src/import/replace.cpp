#include "import/replace.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/output_file.h"
#include "import/source.h"

namespace kvx::import {

namespace {

bool exists(const std::string& path, struct stat& st) { return ::lstat(path.c_str(), &st) == 0; }

}  // namespace

std::vector<std::string> replace_job_files(const std::string& new_job, const std::string& jobname,
                                           const std::vector<std::string>& written,
                                           const std::vector<std::string>& stale, const std::string& aside_dir) {
    std::vector<std::string> targets = written;
    for (const std::string& e : stale)
        if (std::find(written.begin(), written.end(), e) == written.end()) targets.push_back(e);
    // A folder cannot be replaced by a file: refused while nothing has moved.
    for (const std::string& e : targets) {
        struct stat st;
        if (exists(jobname + e, st) && S_ISDIR(st.st_mode))
            throw ImportError(jobname + e + " is a folder; nothing written", 0);
    }
    if (::mkdir(aside_dir.c_str(), 0700) != 0)
        throw ImportError("cannot create " + aside_dir + " (" + std::strerror(errno) + "); nothing written", 0);
    const std::string aside = aside_dir + "/job";

    const common::SignalsHeld held;
    std::vector<std::string> moved_aside, placed;
    auto fail = [&](const std::string& what, int err) {
        std::string unrestored;
        for (auto e = placed.rbegin(); e != placed.rend(); ++e)
            if (::rename((jobname + *e).c_str(), (new_job + *e).c_str()) != 0) unrestored += " " + jobname + *e;
        for (auto e = moved_aside.rbegin(); e != moved_aside.rend(); ++e)
            if (::rename((aside + *e).c_str(), (jobname + *e).c_str()) != 0) unrestored += " " + jobname + *e;
        std::string message = "cannot " + what + " (" + std::strerror(err) + "); ";
        message += unrestored.empty() ? "the earlier job is as it was, nothing written"
                                      : "could not put back" + unrestored + " (kept in " + aside_dir + ")";
        throw ImportError(message, 0);
    };
    for (const std::string& e : targets) {
        struct stat st;
        if (!exists(jobname + e, st)) continue;
        if (::rename((jobname + e).c_str(), (aside + e).c_str()) != 0) fail("move " + jobname + e + " aside", errno);
        moved_aside.push_back(e);
    }
    for (const std::string& e : written) {
        if (::rename((new_job + e).c_str(), (jobname + e).c_str()) != 0)
            fail("move " + jobname + e + " into place", errno);
        placed.push_back(e);
    }
    std::vector<std::string> removed;
    for (const std::string& e : moved_aside)
        if (std::find(written.begin(), written.end(), e) == written.end()) removed.push_back(jobname + e);
    return removed;
}

}  // namespace kvx::import
