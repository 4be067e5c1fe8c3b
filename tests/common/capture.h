// What a piece of code prints on standard output.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace kvx::test {

template <class F>
std::string captured(F&& f) {
    testing::internal::CaptureStdout();
    f();
    return testing::internal::GetCapturedStdout();
}

}  // namespace kvx::test
