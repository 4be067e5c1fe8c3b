// The printf-free number text against printf itself, and the buffered
// writer against plain stdio.
#include "common/number_text.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "common/command.h"
#include "common/temp_dir.h"

namespace {

using kvx::common::fixed6;
using kvx::common::sci5;

std::string with_printf(const char* format, double v) {
    char buf[kvx::common::kNumberTextMax + 8];
    std::snprintf(buf, sizeof buf, format, v);
    return buf;
}

std::string fixed_text(double v) {
    char buf[kvx::common::kNumberTextMax];
    return std::string(buf, fixed6(buf, v));
}

std::string sci_text(double v) {
    char buf[kvx::common::kNumberTextMax];
    return std::string(buf, sci5(buf, v));
}

// The values where a conversion can go wrong: signed zeros, values rounding
// to zero from either side, exact ties of the sixth and seventh decimal
// (odd multiples of 2^-7 and 2^-8 are x.5 micro-units), carries into the
// integer part, both sides of the fast path's limit (4e9), the extremes and the
// non-finite values.
std::vector<double> edge_values() {
    const double inf = std::numeric_limits<double>::infinity(), nan = std::numeric_limits<double>::quiet_NaN();
    std::vector<double> v = {4e9,
                             -4e9,
                             std::nextafter(4e9, 0.0),
                             -std::nextafter(4e9, 0.0),
                             3999999999.9999995,
                             0.0,
                             -0.0,
                             5e-7,
                             -5e-7,
                             4.9999999999999996e-7,
                             5.0000000000000008e-7,
                             1e-7,
                             -1e-300,
                             0.9999995,
                             0.99999949999999995,
                             -0.9999995,
                             999999.9999995,
                             1.5,
                             2.5,
                             -2.5,
                             1e12,
                             std::nextafter(1e12, 0.0),
                             -std::nextafter(1e12, 0.0),
                             123456789012.3456,
                             9.87654321e15,
                             std::numeric_limits<double>::max(),
                             -std::numeric_limits<double>::max(),
                             std::numeric_limits<double>::min(),
                             std::numeric_limits<double>::denorm_min(),
                             -std::numeric_limits<double>::denorm_min(),
                             inf,
                             -inf,
                             nan,
                             -nan};
    for (int k = -300; k <= 300; k += 2) {
        v.push_back((2 * k + 1) / 128.0);
        v.push_back((2 * k + 1) / 256.0);
        v.push_back((2 * k + 1) * 5.0 / 512.0);
    }
    for (int e = -330; e <= 308; ++e) v.push_back(std::pow(10.0, e));
    return v;
}

TEST(NumberText, FixedIsPrintfForEdgeAndRandomValues) {
    for (double x : edge_values()) ASSERT_EQ(fixed_text(x), with_printf("%f", x)) << std::hexfloat << x;
    std::mt19937_64 rng(2024);
    std::uniform_real_distribution<double> grid_like(-3.0, 3.0);
    for (int k = 0; k < 300000; ++k) {
        // Any bit pattern (every exponent, NaN payloads), values of a grid
        // file (decaying magnitudes of either sign) and short decimals.
        const double bits = std::bit_cast<double>(rng());
        const double decay = std::exp(-30.0 * std::fabs(grid_like(rng))) * grid_like(rng);
        const double decimal = static_cast<double>(static_cast<std::int64_t>(rng() % 20000001) - 10000000) / 1e7;
        for (double x : {bits, decay, decimal}) ASSERT_EQ(fixed_text(x), with_printf("%f", x)) << std::hexfloat << x;
    }
}

TEST(NumberText, ScientificIsPrintfForEdgeAndRandomValues) {
    for (double x : edge_values()) ASSERT_EQ(sci_text(x), with_printf("%13.5E", x)) << std::hexfloat << x;
    std::mt19937_64 rng(7);
    for (int k = 0; k < 200000; ++k) {
        const double x = std::bit_cast<double>(rng());
        ASSERT_EQ(sci_text(x), with_printf("%13.5E", x)) << std::hexfloat << x;
    }
}

TEST(NumberText, DecimalIsPrintf) {
    for (long long v : {0LL, 7LL, -7LL, 4000000000LL, 2147483647LL, -2147483647LL - 1}) {
        char buf[32];
        EXPECT_EQ(std::string(buf, kvx::common::decimal(buf, v)), std::to_string(v));
    }
}

// Several MiB through the buffer, single characters and whole numbers mixed,
// land in the file exactly as fputs would have put them.
TEST(TextBuffer, WritesWhatStdioWouldAcrossManyFlushes) {
    kvx::test::TempDir tmp;
    std::string expect;
    const std::string path = tmp.file("buffered.txt");
    std::FILE* f = std::fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    {
        kvx::common::TextBuffer out(f);
        std::mt19937_64 rng(3);
        for (int k = 0; k < 400000; ++k) {
            const double x = std::ldexp(static_cast<double>(rng() % 100000), -static_cast<int>(rng() % 20));
            out.commit(fixed6(out.room(kvx::common::kNumberTextMax), x));
            out.put(k % 7 == 0 ? " end\n" : "\n");
            expect += with_printf("%f", x) + (k % 7 == 0 ? " end\n" : "\n");
        }
        EXPECT_TRUE(out.flush());
    }
    std::fclose(f);
    EXPECT_GT(expect.size(), 3u << 20);
    EXPECT_TRUE(kvx::test::read_file(path) == expect);
}

}  // namespace
