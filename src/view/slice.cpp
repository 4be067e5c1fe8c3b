#include "view/slice.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string_view>

#include "common/version.h"
#include "moldata/symbols.h"
#include "view/tool_io.h"

namespace kvx::view {

namespace {

constexpr const char* kTool = "kalvex-slice";
constexpr const char* kUsage =
    "usage: kalvex-slice JOB FILE.grid --plane z=VALUE|y=VALUE|x=VALUE [OUT.svg] [--storage-order] [--any-job]";

// Property files print six decimals: smaller magnitudes are rounding.
constexpr double kFileResolution = 1e-6;

// Smallest m * 10^k >= x over the given mantissas (ascending, 1 first).
double round_up(double x, std::initializer_list<double> mantissas) {
    const double decade = std::pow(10.0, std::floor(std::log10(x)));
    for (double m : mantissas)
        if (m * decade >= x * (1 - 1e-12)) return m * decade;
    return 10 * decade;
}

// The 1-2-5 sequence within [from, below).
std::vector<double> one_two_five(double from, double below) {
    std::vector<double> out;
    for (double decade = std::pow(10.0, std::floor(std::log10(from))); decade < below; decade *= 10)
        for (double m : {1.0, 2.0, 5.0}) {
            const double v = m * decade;
            if (v >= from * (1 - 1e-12) && v < below * (1 - 1e-12)) out.push_back(v);
        }
    return out;
}

}  // namespace

bool parse_plane_request(const std::string& text, PlaneRequest& out) {
    if (text.size() < 3 || text[1] != '=') return false;
    const char a = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    if (a < 'x' || a > 'z') return false;
    std::string_view num(text);
    num.remove_prefix(2);
    if (!num.empty() && num[0] == '+') num.remove_prefix(1);
    double v = 0;
    const auto r = std::from_chars(num.data(), num.data() + num.size(), v);
    if (r.ec != std::errc() || r.ptr != num.data() + num.size() || !std::isfinite(v)) return false;
    out.axis = a - 'x';
    out.value = v;
    out.value_text = std::string(num);
    return true;
}

int nearest_plane(const PropertyFile& pf, int axis, double value) {
    const int n = pf.count[axis];
    if (n <= 1) return 0;
    const double x = (value - pf.origin[axis]) / pf.step[axis];
    if (!(x > 0)) return 0;
    if (x >= n - 1) return n - 1;
    return static_cast<int>(std::ceil(x - 0.5));
}

bool take_slice(const PropertyFile& pf, int axis, int index, Slice& out) {
    out = Slice{};
    out.axis = axis;
    out.index = index;
    out.h_axis = axis == 0 ? 1 : 0;
    out.v_axis = axis == 2 ? 1 : 2;
    out.coordinate = pf.coordinate(axis, index);
    Plane& p = out.plane;
    p.n1 = pf.count[out.h_axis];
    p.n2 = pf.count[out.v_axis];
    if (p.n1 < 2 || p.n2 < 2 || index < 0 || index >= pf.count[axis]) return false;
    p.v.resize(static_cast<std::size_t>(p.n1) * p.n2);
    int idx[3];
    idx[axis] = index;
    for (int i = 0; i < p.n1; ++i)
        for (int j = 0; j < p.n2; ++j) {
            idx[out.h_axis] = i;
            idx[out.v_axis] = j;
            p.v[static_cast<std::size_t>(i) * p.n2 + j] = pf.at(idx[0], idx[1], idx[2]);
        }
    const auto [lo, hi] = std::minmax_element(p.v.begin(), p.v.end());
    out.min = *lo;
    out.max = *hi;
    return true;
}

double ColourScale::position(double value) const {
    if (logarithmic) {
        const double l = std::log10(std::max(value, lo * 1e-3));
        return (l - std::log10(lo)) / (std::log10(hi) - std::log10(lo));
    }
    return (value - lo) / (hi - lo);
}

ColourScale choose_scale(const Slice& s, bool signed_property, bool potential) {
    ColourScale c;
    if (signed_property) {
        c.map = ColourMap::kDiverging;
        const double largest = std::max(std::fabs(s.min), std::fabs(s.max));
        double r = largest;
        if (potential && largest > 0) {
            // Nine in ten points of the plane, and all of its negative region,
            // inside the range; the spikes at the nuclei saturate.
            std::vector<double> mag(s.plane.v.size());
            std::transform(s.plane.v.begin(), s.plane.v.end(), mag.begin(), [](double v) { return std::fabs(v); });
            const std::size_t k = mag.size() * 9 / 10;
            std::nth_element(mag.begin(), mag.begin() + static_cast<std::ptrdiff_t>(k), mag.end());
            const double wanted = std::max({std::fabs(std::min(s.min, 0.0)), mag[k], kFileResolution});
            const double round = round_up(wanted, {1, 1.5, 2, 3, 4, 5, 6, 8});
            if (round < largest) {
                r = round;
                c.clipped = true;
            }
        }
        if (r < kFileResolution) r = kFileResolution;  // an all-zero plane
        c.lo = -r;
        c.hi = r;
        const std::vector<double> pos = one_two_five(std::max(r / 100, 2 * kFileResolution), r);
        for (auto it = pos.rbegin(); it != pos.rend(); ++it) c.levels.push_back(-*it);
        c.levels.push_back(0);
        c.levels.insert(c.levels.end(), pos.begin(), pos.end());
        const double step = round_up(r / 3, {1, 2, 2.5, 5});
        const int n = static_cast<int>(std::floor(r / step * (1 + 1e-9)));
        for (int k = -n; k <= n; ++k) c.ticks.push_back(k * step);
        return c;
    }
    c.map = ColourMap::kSequential;
    c.logarithmic = true;
    c.hi = std::max(s.max, 10 * kFileResolution);
    c.lo = c.hi >= 1 ? 1e-3 : std::pow(10.0, std::floor(std::log10(c.hi)) - 3);
    c.lo = std::max(c.lo, kFileResolution);
    c.levels = one_two_five(c.lo, c.hi);
    for (double d = c.lo; d <= c.hi * (1 + 1e-12); d *= 10) c.ticks.push_back(d);
    if (c.ticks.size() < 3) {
        c.ticks.clear();
        for (double v : one_two_five(c.lo, c.hi * (1 + 1e-9))) c.ticks.push_back(v);
    }
    return c;
}

std::vector<AtomMark> atoms_near_plane(const Slice& s, const PropertyFile& pf, const std::vector<moldata::Atom>& atoms,
                                       double within) {
    std::vector<AtomMark> out;
    const int h = s.h_axis, v = s.v_axis;
    const double tol = 1e-9;
    for (std::size_t k = 0; k < atoms.size(); ++k) {
        const moldata::Atom& a = atoms[k];
        const double r[3] = {a.x, a.y, a.z};
        const double d = r[s.axis] - s.coordinate;
        if (std::fabs(d) > within + tol) continue;
        if (r[h] < pf.origin[h] - tol || r[h] > pf.coordinate(h, pf.count[h] - 1) + tol) continue;
        if (r[v] < pf.origin[v] - tol || r[v] > pf.coordinate(v, pf.count[v] - 1) + tol) continue;
        AtomMark m;
        m.number = static_cast<int>(k) + 1;
        m.symbol = a.atomic_number > 0 ? moldata::element_symbol(a.atomic_number) : a.symbol;
        m.h = r[h];
        m.v = r[v];
        m.distance = d;
        out.push_back(m);
    }
    return out;
}

int run_slice(int argc, char** argv) {
    if (common::answer_help_or_version(kTool, kUsage, argc, argv)) return 0;
    std::vector<std::string> args;
    ValueOrder order = ValueOrder::kXFastest;
    std::string plane_text;
    bool any_job = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--storage-order") == 0) {
            order = ValueOrder::kStorage;
        } else if (std::strcmp(argv[i], "--any-job") == 0) {
            any_job = true;
        } else if (std::strcmp(argv[i], "--plane") == 0) {
            if (i + 1 >= argc) return report_failure(kTool, kUsage);
            plane_text = argv[++i];
        } else if (std::strncmp(argv[i], "--plane=", 8) == 0) {
            plane_text = argv[i] + 8;
        } else if (argv[i][0] == '-' && argv[i][1] == '-') {
            return report_failure(kTool, std::string("unknown option ") + argv[i] + "\n" + kUsage);
        } else {
            args.emplace_back(argv[i]);
        }
    }
    if (args.size() < 2 || args.size() > 3 || plane_text.empty()) return report_failure(kTool, kUsage);
    PlaneRequest req;
    if (!parse_plane_request(plane_text, req))
        return report_failure(kTool, "bad plane \"" + plane_text + "\" (want z=VALUE, y=VALUE or x=VALUE, bohr)");
    const std::string& job = args[0];
    const std::string& in = args[1];
    const char axis_name = static_cast<char>('x' + req.axis);
    const std::string out =
        args.size() == 3 ? args[2] : without_grid_suffix(in) + "-" + axis_name + req.value_text + ".svg";

    PropertyFile pf;
    std::string error;
    if (!read_property_file(in, order, pf, error)) return report_failure(kTool, error);
    SliceView view;
    view.pf = &pf;
    const int index = nearest_plane(pf, req.axis, req.value);
    if (!take_slice(pf, req.axis, index, view.slice)) {
        const int h = view.slice.h_axis, v = view.slice.v_axis;
        return report_failure(kTool, in + ": a " + axis_name + " plane needs two or more points along " +
                                         char('x' + h) + " and " + char('x' + v) + "; the grid has " +
                                         std::to_string(pf.count[h]) + " and " + std::to_string(pf.count[v]));
    }
    JobView jv;
    if (!read_job(job, jv, error)) return report_failure(kTool, error);
    if (!any_job)
        if (const std::string foreign = foreign_file_message(in, pf, job, jv); !foreign.empty())
            return report_failure(kTool, foreign);
    const std::vector<moldata::Atom>& atoms = jv.atoms;

    const PropertyName name = property_name_of(in);
    bool signed_property = is_signed_property(name.word);
    if (name.word.empty()) signed_property = view.slice.min < 0;
    view.scale = choose_scale(view.slice, signed_property, name.word == "ep");
    view.atoms = atoms_near_plane(view.slice, pf, atoms);
    const std::size_t slash = job.rfind('/');
    view.job = slash == std::string::npos ? job : job.substr(slash + 1);
    view.property = name.word.empty() ? "property" : name.label();
    view.description = describe_property(name);

    const std::string svg = slice_svg(view);
    if (!write_atomically(
            out, [&](std::FILE* f) { return std::fwrite(svg.data(), 1, svg.size(), f) == svg.size(); }, error))
        return report_failure(kTool, error);

    const int last = pf.count[req.axis] - 1;
    const double half = 0.5 * pf.step[req.axis];
    if (req.value < pf.origin[req.axis] - half || req.value > pf.coordinate(req.axis, last) + half)
        std::printf("Note: %c = %s lies outside the grid (%.6f to %.6f); nearest plane used\n", axis_name,
                    req.value_text.c_str(), pf.origin[req.axis], pf.coordinate(req.axis, last));
    std::printf("Slice picture: %s (%c = %.6f bohr, plane %d of %d)\n", out.c_str(), axis_name,
                view.slice.coordinate, index + 1, pf.count[req.axis]);
    return 0;
}

}  // namespace kvx::view
