// A job the readers refuse as a whole: a file damaged past reading, or memory
// they cannot get. Readers return it to the molecule builder, which hands it
// to its caller; kalvex prints the message and ends with status 0.
#pragma once

#include <string>

namespace kvx::moldata {

struct [[nodiscard]] JobError {
    std::string message;  // one line, without its line end; empty: no error
    explicit operator bool() const { return !message.empty(); }
};

}  // namespace kvx::moldata
