#include "view/contour.h"

#include <cmath>
#include <utility>

namespace kvx::view {

namespace {

// Edge numbers: 2k for the edge from (i, j) to (i + 1, j), 2k + 1 for the
// edge from (i, j) to (i, j + 1), k = i * n2 + j. A contour crosses an edge
// at one point, and at most two cell segments end on it.
struct EdgeIds {
    int n2;
    long along_i(int i, int j) const { return 2L * (static_cast<long>(i) * n2 + j); }
    long along_j(int i, int j) const { return 2L * (static_cast<long>(i) * n2 + j) + 1; }
};

}  // namespace

std::vector<Polyline> contour_lines(const Plane& p, double level, double dead_band) {
    std::vector<Polyline> out;
    if (p.n1 < 2 || p.n2 < 2) return out;
    const EdgeIds id{p.n2};
    const std::size_t nedges = 2 * static_cast<std::size_t>(p.n1) * p.n2;
    std::vector<std::array<double, 2>> where(nedges);
    std::vector<std::array<int, 2>> ends(nedges, {-1, -1});
    std::vector<std::pair<long, long>> segs;

    auto crossing = [&](int i0, int j0, int i1, int j1) {
        const double a = p.at(i0, j0), b = p.at(i1, j1);
        const double t = (level - a) / (b - a);
        const long e = i1 > i0 ? id.along_i(i0, j0) : id.along_j(i0, j0);
        where[e] = {i0 + t * (i1 - i0), j0 + t * (j1 - j0)};
        return e;
    };
    auto add = [&](long e0, long e1) {
        const int s = static_cast<int>(segs.size());
        segs.emplace_back(e0, e1);
        for (long e : {e0, e1}) ends[e][ends[e][0] < 0 ? 0 : 1] = s;
    };

    for (int i = 0; i + 1 < p.n1; ++i)
        for (int j = 0; j + 1 < p.n2; ++j) {
            // Corners counter-clockwise from (i, j): a, b, c, d.
            const double a = p.at(i, j), b = p.at(i + 1, j), c = p.at(i + 1, j + 1), d = p.at(i, j + 1);
            if (std::fabs(a - level) < dead_band && std::fabs(b - level) < dead_band &&
                std::fabs(c - level) < dead_band && std::fabs(d - level) < dead_band)
                continue;
            const int cas = (a > level) | (b > level) << 1 | (c > level) << 2 | (d > level) << 3;
            if (cas == 0 || cas == 15) continue;
            long e[4] = {-1, -1, -1, -1};  // bottom (a-b), right (b-c), top (d-c), left (a-d)
            if ((cas & 1) != (cas >> 1 & 1)) e[0] = crossing(i, j, i + 1, j);
            if ((cas >> 1 & 1) != (cas >> 2 & 1)) e[1] = crossing(i + 1, j, i + 1, j + 1);
            if ((cas >> 3 & 1) != (cas >> 2 & 1)) e[2] = crossing(i, j + 1, i + 1, j + 1);
            if ((cas & 1) != (cas >> 3 & 1)) e[3] = crossing(i, j, i, j + 1);
            if (cas == 5 || cas == 10) {
                // Saddle: the mean of the corners decides which pair is joined.
                const bool centre_above = (a + b + c + d) / 4 > level;
                if ((cas == 5) == centre_above) {  // b and d cut off
                    add(e[0], e[1]);
                    add(e[2], e[3]);
                } else {  // a and c cut off
                    add(e[3], e[0]);
                    add(e[1], e[2]);
                }
                continue;
            }
            long pair[2];
            int n = 0;
            for (long x : e)
                if (x >= 0) pair[n++] = x;
            add(pair[0], pair[1]);
        }

    std::vector<char> used(segs.size(), 0);
    // Follows segments from edge `from` through segment s to the end of the line.
    auto walk = [&](long from, int s, Polyline& line) {
        long at = from;
        while (s >= 0 && !used[s]) {
            used[s] = 1;
            at = segs[s].first == at ? segs[s].second : segs[s].first;
            line.points.push_back(where[at]);
            const auto& two = ends[at];
            s = two[0] == s ? two[1] : two[0];
        }
        return at;
    };
    // Open lines first, from an edge on which only one segment ends.
    for (std::size_t e = 0; e < nedges; ++e)
        if (ends[e][0] >= 0 && ends[e][1] < 0 && !used[ends[e][0]]) {
            Polyline line;
            line.points.push_back(where[e]);
            walk(static_cast<long>(e), ends[e][0], line);
            out.push_back(std::move(line));
        }
    for (std::size_t s = 0; s < segs.size(); ++s)
        if (!used[s]) {
            Polyline line;
            const long start = segs[s].first;
            line.points.push_back(where[start]);
            if (walk(start, static_cast<int>(s), line) == start) {
                line.points.pop_back();
                line.closed = true;
            }
            out.push_back(std::move(line));
        }
    return out;
}

}  // namespace kvx::view
