#include <gtest/gtest.h>

#include <cstdio>
#include <string>

// The binary with no job name prints its usage line and ends with status 0.
TEST(Usage, NoJobNamePrintsUsage) {
    FILE* p = popen(KVX_BINARY " 2>&1", "r");
    ASSERT_NE(p, nullptr);
    char buf[256] = {};
    std::string out;
    while (fgets(buf, sizeof buf, p)) out += buf;
    int st = pclose(p);
    EXPECT_EQ(out, "Usage: kalvex jobname\n");
    EXPECT_EQ(WEXITSTATUS(st), 0);
}
