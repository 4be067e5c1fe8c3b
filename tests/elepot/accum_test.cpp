// Fixed-length block accumulators: each selected routine touches exactly
// cart(A) x cart(B) elements, with the right arithmetic.
#include <gtest/gtest.h>
#include <unistd.h>

#include <vector>

#include "elepot/accum.h"

using namespace kvx::elepot;

namespace {

// Cartesian components per shell type 0..13, written out here rather than
// taken from the library: s 1, p 3, sp 4, d 6, f 10, g 15, h 21, i 28.
constexpr int kComp[14] = {0, 1, 3, 4, 6, 6, 10, 10, 15, 21, 28, 15, 21, 28};
constexpr int kGuard = 5;
constexpr double kSentinel = -7.25;

TEST(AccumTest, EveryTypePairTouchesExactlyItsBlock) {
    std::vector<double> fac(784), val(784), dst(784 + kGuard), before(784 + kGuard);
    for (int k = 0; k < 784; ++k) {
        fac[k] = 0.5 + 0.001 * k;
        val[k] = 1.0 - 0.003 * k;
    }
    for (int a = 1; a <= 13; ++a)
        for (int b = 1; b <= 13; ++b) {
            const int n = kComp[a] * kComp[b];
            SCOPED_TRACE(::testing::Message() << "types " << a << "," << b << " length " << n);

            dst.assign(dst.size(), kSentinel);
            which_intc_zero(a, b)(dst.data());
            for (int k = 0; k < n; ++k) ASSERT_EQ(dst[k], 0.0) << k;
            for (int k = n; k < n + kGuard; ++k) ASSERT_EQ(dst[k], kSentinel) << "past the end at " << k;

            dst.assign(dst.size(), kSentinel);
            which_intc_init(a, b)(fac.data(), val.data(), dst.data());
            for (int k = 0; k < n; ++k) ASSERT_EQ(dst[k], val[k] * fac[k]) << k;
            for (int k = n; k < n + kGuard; ++k) ASSERT_EQ(dst[k], kSentinel) << "past the end at " << k;

            for (std::size_t k = 0; k < dst.size(); ++k) dst[k] = before[k] = 0.25 * static_cast<double>(k) - 3.0;
            which_intc_accum(a, b)(fac.data(), val.data(), dst.data());
            for (int k = 0; k < n; ++k) ASSERT_EQ(dst[k], before[k] + val[k] * fac[k]) << k;
            for (int k = n; k < n + kGuard; ++k) ASSERT_EQ(dst[k], before[k]) << "past the end at " << k;
        }
}

TEST(AccumTest, NamedPairs) {
    // (s, s) -> 1, (i, i) cartesian or spherical -> 784, (sp, d) -> 24:
    // the selected zero routine clears exactly that many elements.
    auto cleared = [](int a, int b) {
        std::vector<double> d(800, 1.0);
        which_intc_zero(a, b)(d.data());
        int n = 0;
        while (n < 800 && d[n] == 0.0) ++n;
        return n;
    };
    EXPECT_EQ(cleared(1, 1), 1);
    EXPECT_EQ(cleared(10, 10), 784);
    EXPECT_EQ(cleared(13, 13), 784);
    EXPECT_EQ(cleared(10, 13), 784);
    EXPECT_EQ(cleared(3, 4), 24);
    EXPECT_EQ(cleared(5, 3), 24);
    // The same length from different type pairs gives the same routine.
    EXPECT_EQ(which_intc_init(2, 6), which_intc_init(7, 2));
    EXPECT_EQ(which_intc_accum(4, 7), which_intc_accum(7, 5));
}

TEST(AccumDeathTest, TypeZeroEndsRunWithSelectorMessage) {
    EXPECT_EXIT(
        {
            dup2(2, 1);  // the message goes to stdout
            which_intc_zero(0, 5);
        },
        ::testing::ExitedWithCode(0), "Accum which_intc_zero: cannot select function");
    EXPECT_EXIT(
        {
            dup2(2, 1);
            which_intc_init(3, 0);
        },
        ::testing::ExitedWithCode(0), "Accum which_intc_init: cannot select function");
    EXPECT_EXIT(
        {
            dup2(2, 1);
            which_intc_accum(0, 0);
        },
        ::testing::ExitedWithCode(0), "Accum which_intc_accum: cannot select function");
}

}  // namespace
