#include "gauss/dfact.h"

#include <vector>

#include "common/fatal.h"

namespace kvx::gauss {

namespace {
std::vector<double> g_df;  // g_df[n] = n!!
}

void dfact_grow(int n) {
    if (n < 1) n = 1;
    if (static_cast<int>(g_df.size()) > n) return;
    common::alloc_or_die("Fmch: memory allocation for double factorial table failed.", [&] {
        std::size_t old = g_df.size();
        // Grown in steps so that repeated small requests do not reallocate.
        std::size_t want = static_cast<std::size_t>(n) + 1;
        if (want < old + 16) want = old + 16;
        g_df.resize(want);
        for (std::size_t k = old; k < want; ++k) g_df[k] = k < 2 ? 1.0 : static_cast<double>(k) * g_df[k - 2];
    });
}

double dfact(int n) { return n < 0 ? 1.0 : g_df[static_cast<std::size_t>(n)]; }

int dfact_top() { return static_cast<int>(g_df.size()) - 1; }

void dfact_release() {
    g_df.clear();
    g_df.shrink_to_fit();
}

}  // namespace kvx::gauss
