#include <gtest/gtest.h>

#include "common/command.h"

// The binary with no job name prints its usage line and ends with status 0
// (the tables follow on standard error).
TEST(Usage, NoJobNamePrintsUsage) {
    const kvx::test::SplitResult r = kvx::test::run_split("'" KVX_BINARY "'");
    EXPECT_EQ(r.out, "Usage: kalvex jobname\n");
    EXPECT_EQ(r.status, 0);
}
