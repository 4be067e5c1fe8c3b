#include "main/output.h"

#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/input_file.h"
#include "common/output_file.h"
#include "common/number_text.h"
#include "moldata/checksum.h"
#include "moldata/lattice.h"

namespace kvx::main {

// Stamps read doubles and integers as they lie in memory, little-endian.
static_assert(std::endian::native == std::endian::little, "stamps assume little-endian storage");

namespace {

struct OutputModule {
    const int* point_mode = nullptr;  // the -point option's state
};

OutputModule g_output;

}  // namespace

// The stamp is the molecule's density checksum function: one end-around-carry
// sum, so that a stamp chains on from the checksum it is seeded with.
uint32_t stamp(const void* data, std::size_t len, uint32_t seed) { return moldata::checksum32(data, len, seed); }

uint32_t grid_stamp(const grid::Grid* g, uint32_t seed) {
    if (!g) return seed;
    moldata::LatticeRecord r;
    r.ndim = g->ndim;
    for (int c = 0; c < 3; ++c) {
        r.centre[c] = g->centre[c];
        r.origin[c] = g->origin[c];
        for (int d = 0; d < 3; ++d) r.axes[c][d] = g->axes[c][d];
        r.lengths[c] = g->lengths[c];
        r.spacings[c] = g->spacings[c];
        r.counts[c] = g->counts[c];
    }
    return moldata::lattice_stamp(r, seed);
}

void stamp_text(uint32_t s, char out[17]) {
    static const char kGaps[] = ":;<=>?@[\\]^_`";
    char buf[16];
    for (int k = 0; k < 4; ++k) {
        const int b = (s >> (8 * (3 - k))) & 0xFF;
        const int q = b / 4, r = b - 4 * q;
        int c[4] = {48 + q + r, 48 + q, 48 + q, 48 + q};
        // Push codes out of the punctuation between digits and letters; each
        // move keeps the pair's sum, so the four codes still sum to 4*48 + b.
        // c0 and c2 only rise and c1 and c3 only fall, so the sweeps end.
        for (bool changed = true; changed;) {
            changed = false;
            for (const char* g = kGaps; *g; ++g)
                for (int p = 0; p < 4; p += 2)
                    if (c[p] == *g || c[p + 1] == *g) {
                        ++c[p];
                        --c[p + 1];
                        changed = true;
                    }
        }
        for (int j = 0; j < 4; ++j) buf[4 * j + k] = static_cast<char>(c[j]);
    }
    out[0] = buf[15];
    for (int i = 1; i < 16; ++i) out[i] = buf[i - 1];
    out[16] = '\0';
}

std::string name_file(const char* base, const char* dir, const moldata::PropertyWord& prop, const char* orbital_arg) {
    if (!base) base = "";
    if (!dir) dir = "";
    std::string part = moldata::file_word(prop);
    if (prop.orbital && orbital_arg) {
        // Only the leading integer counts: "3-5" names orbital 3.
        char* end = nullptr;
        errno = 0;
        long v = std::strtol(orbital_arg, &end, 10);
        if (end != orbital_arg) {
            if (v > INT_MAX) v = INT_MAX;
            if (v < INT_MIN) v = INT_MIN;
            part += '-';
            part += std::to_string(v);
        }
    }
    std::string name;
    const std::size_t n = std::strlen(dir);
    if (n > 0) {
        name = dir;
        if (dir[n - 1] != '/') name += '/';
    }
    name += base;
    name += '-';
    name += part;
    name += ".grid";
    return name;
}

bool file_exists(const std::string& name, uint32_t expected) {
    // Only a regular file counts: a FIFO in its place would block the open.
    std::FILE* f = common::open_bounded(name, 64);
    if (!f) return false;
    unsigned value = 0;
    const bool ok = std::fscanf(f, "%u", &value) == 1;
    std::fclose(f);
    return ok && value == expected;
}

namespace {

// Number of points along each of the three axes; 1 beyond the dimension count.
void file_counts(const grid::Grid& g, int n[3]) {
    for (int d = 0; d < 3; ++d) n[d] = d < g.ndim ? g.counts[d] : 1;
}

// "%f" numbers separated by sep, then a line end.
void fixed_line(common::TextBuffer& out, const double* v, int n) {
    char* p = out.room(3 * common::kNumberTextMax);
    for (int k = 0; k < n; ++k) {
        if (k > 0) *p++ = ' ';
        p = common::fixed6(p, v[k]);
    }
    *p++ = '\n';
    out.commit(p);
}

bool write_body(std::FILE* f, const grid::PropertyGrid& pg, uint32_t s, int fgrid) {
    const grid::Grid& g = *pg.grid;
    const grid::GridGeometry geo = grid::grid_geometry(g);
    int n[3];
    file_counts(g, n);
    common::TextBuffer out(f);
    char* p = common::decimal(out.room(24), s);
    *p++ = '\n';
    out.commit(p);
    fixed_line(out, g.origin, 3);
    const double step[3] = {geo.M[0][0], geo.M[1][1], geo.M[2][2]};
    fixed_line(out, step, 3);
    p = out.room(80);
    for (int d = 0; d < 3; ++d) {
        if (d > 0) *p++ = ' ';
        p = common::decimal(p, n[d]);
    }
    *p++ = '\n';
    out.commit(p);

    const double* v = pg.values.data();
    auto value = [&](double x) {
        char* q = common::fixed6(out.room(common::kNumberTextMax + 1), x);
        *q++ = '\n';
        out.commit(q);
    };
    if (fgrid) {
        // x fastest: storage position index_of_indices(ix, iy, iz), stepped.
        const int first[3] = {0, 0, 0}, dx[3] = {1, 0, 0}, dy[3] = {0, 1, 0}, dz[3] = {0, 0, 1};
        const long o = geo.index_of_indices(first);
        const long sx = n[0] > 1 ? geo.index_of_indices(dx) - o : 0;
        const long sy = n[1] > 1 ? geo.index_of_indices(dy) - o : 0;
        const long sz = n[2] > 1 ? geo.index_of_indices(dz) - o : 0;
        for (int iz = 0; iz < n[2]; ++iz)
            for (int iy = 0; iy < n[1]; ++iy) {
                const double* row = v + o + iz * sz + iy * sy;
                for (int ix = 0; ix < n[0]; ++ix) value(row[ix * sx]);
            }
    } else {
        for (std::size_t k = 0; k < g.total; ++k) value(v[k]);
    }
    return out.flush() && std::fflush(f) == 0 && !std::ferror(f);
}

}  // namespace

void fout_dbs(const grid::PropertyGrid* pg, uint32_t s, int fgrid) {
    if (!pg || pg->filename.empty() || !pg->grid) return;
    const grid::Grid& g = *pg->grid;
    int n[3];
    file_counts(g, n);
    const long long points = 1LL * n[0] * n[1] * n[2];
    if (points != g.total || pg->values.size() < g.total) return;  // record and values disagree

    // Written beside the target and renamed over it only when complete, so a
    // failed or interrupted write never leaves a half file under the name.
    std::string error;
    if (!common::write_atomically(
            pg->filename, [&](std::FILE* f) { return write_body(f, *pg, s, fgrid); }, error)) {
        std::printf("Output fout_dbs: cannot open grid file %s\n", pg->filename.c_str());
        std::fflush(stdout);
        return;
    }
    std::printf("Property file: %s\n", pg->filename.c_str());
    std::fflush(stdout);
}

void write_property(const grid::PropertyGrid* pg, uint32_t s, int fgrid) {
    if (g_output.point_mode && *g_output.point_mode) {
        if (!pg || !pg->grid) return;
        const grid::GridGeometry geo = grid::grid_geometry(*pg->grid);
        // The middle of the 3 x 3 x 3 grid built around the requested point.
        const int idx[3] = {1, 1, 1};
        const int k = geo.index_of_indices(idx);
        if (k < 0 || static_cast<std::size_t>(k) >= pg->values.size()) return;
        double p[3];
        geo.point_of_indices(p, idx);
        std::printf("Point:%f %f %f Property: %f \n", p[0], p[1], p[2], pg->values[k]);
        std::fflush(stdout);
        return;
    }
    fout_dbs(pg, s, fgrid);
}

void set_point_mode_link(const int* point_state) { g_output.point_mode = point_state; }

int get_inode(const char* jobname) {
    std::string name = jobname ? jobname : "";
    name += ".out";
    struct stat st;
    if (::stat(name.c_str(), &st) != 0) {
        std::printf("Output get_inode: Warning, cannot get inode for %s\n", name.c_str());
        std::fflush(stdout);
        return 0;
    }
    return static_cast<int16_t>(static_cast<uint16_t>(st.st_ino & 0xFFFF));
}

}  // namespace kvx::main
