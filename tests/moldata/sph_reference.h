// Dense spherical combination matrices written out from the chemistry, for
// checking transformed blocks: rows are spherical functions, columns the
// cartesian components (d: xx yy zz xy xz yz; f: xxx xxy xxz xyy xyz xzz yyy
// yyz yzz zzz). Other types get the identity of their cartesian count.
#pragma once

#include <cmath>
#include <vector>

#include "moldata/shell_types.h"

namespace kvx::test {

using DenseMatrix = std::vector<std::vector<double>>;

inline DenseMatrix identity_matrix(int n) {
    DenseMatrix m(n, std::vector<double>(n, 0.0));
    for (int i = 0; i < n; ++i) m[i][i] = 1.0;
    return m;
}

inline DenseMatrix sph_matrix(int type) {
    if (type == 4) {
        const double a = 1.0 / (2.0 * std::sqrt(3.0));
        return {{-a, -a, 2 * a, 0, 0, 0}, {0.5, -0.5, 0, 0, 0, 0}, {0, 0, 0, 1, 0, 0}, {0, 0, 0, 0, 1, 0},
                {0, 0, 0, 0, 0, 1}};
    }
    if (type == 6) {
        //       xxx xxy xxz xyy xyz xzz yyy yyz yzz zzz
        return {{0, 4, 0, 0, 0, 0, -1, 0, -1, 0},   // 4xxy - yyy - yzz
                {0, 0, 4, 0, 0, 0, 0, -1, 0, -1},   // 4xxz - yyz - zzz
                {-1, 0, 0, 4, 0, -1, 0, 0, 0, 0},   // 4xyy - xxx - xzz
                {0, 0, -1, 0, 0, 0, 0, 4, 0, -1},   // 4yyz - xxz - zzz
                {-1, 0, 0, -1, 0, 4, 0, 0, 0, 0},   // 4xzz - xxx - xyy
                {0, -1, 0, 0, 0, 0, -1, 0, 4, 0},   // 4yzz - xxy - yyy
                {0, 0, 0, 0, std::sqrt(40.0), 0, 0, 0, 0, 0}};
    }
    return identity_matrix(moldata::kCartCount[type]);
}

// T_A M T_B^T for one ca x cb row-major block M.
inline std::vector<double> sandwich(const DenseMatrix& TA, const DenseMatrix& TB, const double* M, int ca, int cb) {
    const int ra = static_cast<int>(TA.size()), rb = static_cast<int>(TB.size());
    std::vector<double> out(static_cast<std::size_t>(ra) * rb, 0.0);
    for (int i = 0; i < ra; ++i)
        for (int j = 0; j < rb; ++j) {
            double s = 0;
            for (int k = 0; k < ca; ++k)
                for (int l = 0; l < cb; ++l) s += TA[i][k] * M[k * cb + l] * TB[j][l];
            out[static_cast<std::size_t>(i) * rb + j] = s;
        }
    return out;
}

}  // namespace kvx::test
