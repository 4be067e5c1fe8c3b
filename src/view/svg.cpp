// The slice picture: colour raster (an embedded PNG, resampled bilinearly
// from the grid), contour lines, atoms, axes in bohr and the colour bar.
#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "view/png.h"
#include "view/slice.h"

namespace kvx::view {

namespace {

constexpr double kPlotSize = 520;  // px along the longer side of the plane
constexpr double kLeft = 78, kTop = 86, kBottom = 84;
constexpr double kBarGap = 28, kBarWidth = 20, kBarLabels = 92, kMinBarHeight = 240;
constexpr const char* kFont = "DejaVu Sans, Helvetica, Arial, sans-serif";

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...) {
    char buf[256];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    return buf;
}

std::string xml_escape(const std::string& s) {
    std::string out;
    for (char c : s) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            case '\'': out += "&apos;"; break;
            default:
                // Control characters are not allowed in XML 1.0 text.
                if (static_cast<unsigned char>(c) >= 0x20 || c == '\t') out += c;
        }
    }
    return out;
}

std::string minus_sign(const std::string& s) {
    std::string out;
    for (char c : s) out += c == '-' ? "\u2212" : std::string(1, c);
    return out;
}

// A number for people: up to four significant digits, a true minus sign,
// exponents written 1e-5 rather than 1e-05.
std::string label(double v) {
    if (std::fabs(v) < 1e-300) v = 0;
    std::string s = format("%.4g", v);
    const auto e = s.find('e');
    if (e != std::string::npos) {
        std::string mant = s.substr(0, e), exp = s.substr(e + 1);
        const bool neg = exp[0] == '-';
        exp = exp.substr(exp[0] == '-' || exp[0] == '+' ? 1 : 0);
        exp.erase(0, std::min(exp.find_first_not_of('0'), exp.size() - 1));
        s = mant + "e" + (neg ? "-" : "") + exp;
    }
    return minus_sign(s);
}

std::string data_number(double v) { return format("%.9g", v); }

// Bilinear value at fractional grid position (x, y).
double bilinear(const Plane& p, const std::vector<double>& f, double x, double y) {
    const int i = std::min(static_cast<int>(x), p.n1 - 2), j = std::min(static_cast<int>(y), p.n2 - 2);
    const double u = x - i, w = y - j;
    auto at = [&](int a, int b) { return f[static_cast<std::size_t>(a) * p.n2 + b]; };
    return (1 - u) * (1 - w) * at(i, j) + u * (1 - w) * at(i + 1, j) + (1 - u) * w * at(i, j + 1) +
           u * w * at(i + 1, j + 1);
}

struct Frame {
    double h0, v0, dh, dv;  // plane origin and steps, bohr
    double s;               // px per bohr
    double left, top, width, height;
    double x(double h) const { return left + (h - h0) * s; }
    double y(double v) const { return top + height - (v - v0) * s; }
};

}  // namespace

std::string slice_svg(const SliceView& view) {
    const PropertyFile& pf = *view.pf;
    const Slice& sl = view.slice;
    const Plane& p = sl.plane;
    const ColourScale& sc = view.scale;
    const char hname = static_cast<char>('x' + sl.h_axis), vname = static_cast<char>('x' + sl.v_axis);
    const char nname = static_cast<char>('x' + sl.axis);

    Frame fr;
    fr.h0 = pf.origin[sl.h_axis];
    fr.v0 = pf.origin[sl.v_axis];
    fr.dh = pf.step[sl.h_axis];
    fr.dv = pf.step[sl.v_axis];
    const double eh = (p.n1 - 1) * fr.dh, ev = (p.n2 - 1) * fr.dv;
    fr.s = kPlotSize / std::max(eh, ev);
    fr.left = kLeft;
    fr.top = kTop;
    fr.width = eh * fr.s;
    fr.height = ev * fr.s;
    const double bar_h = std::max(fr.height, kMinBarHeight);
    const double bar_x = fr.left + fr.width + kBarGap;
    const double W = std::ceil(bar_x + kBarWidth + kBarLabels);
    const double H = std::ceil(kTop + bar_h + kBottom);

    std::string o;
    o.reserve(1 << 16);
    o += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    o += format(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" xmlns:xlink=\"http://www.w3.org/1999/xlink\" "
        "width=\"%.0f\" height=\"%.0f\" viewBox=\"0 0 %.0f %.0f\" font-family=\"%s\" ",
        W, H, W, H, kFont);
    o += format("data-plane-axis=\"%c\" data-plane=\"%d\" data-planes=\"%d\" data-plane-coordinate=\"%s\">\n", nname,
                sl.index + 1, pf.count[sl.axis], data_number(sl.coordinate).c_str());
    o += format("<rect width=\"%.0f\" height=\"%.0f\" fill=\"#ffffff\"/>\n", W, H);

    // Title.
    std::string what = view.job + " \u2014 " + view.property;
    if (!view.description.empty()) what += " (" + view.description + ")";
    o += format("<text x=\"%.1f\" y=\"28\" font-size=\"18\" font-weight=\"bold\" fill=\"#1a1a1a\">", fr.left) +
         xml_escape(what) + "</text>\n";
    o += format("<text class=\"plane\" x=\"%.1f\" y=\"50\" font-size=\"13\" fill=\"#444\">", fr.left) +
         format("%c = %s bohr (plane %d of %d); atoms within 1 bohr of the plane marked", nname,
                minus_sign(format("%.3f", sl.coordinate)).c_str(), sl.index + 1, pf.count[sl.axis]) +
         "</text>\n";

    // Colour raster: pixel centres on the grid points and on f - 1 points
    // between neighbours, coloured from the bilinear field (log10 for
    // logarithmic scales, so densities stay smooth across decades).
    std::vector<double> field(p.v.size());
    for (std::size_t k = 0; k < p.v.size(); ++k)
        field[k] = sc.logarithmic ? std::log10(std::max(p.v[k], sc.lo * 1e-3)) : p.v[k];
    const double t_lo = sc.logarithmic ? std::log10(sc.lo) : sc.lo;
    const double t_hi = sc.logarithmic ? std::log10(sc.hi) : sc.hi;
    const int f = std::clamp(static_cast<int>(std::ceil(180.0 / (std::max(p.n1, p.n2) - 1))), 1, 8);
    const int iw = (p.n1 - 1) * f + 1, ih = (p.n2 - 1) * f + 1;
    std::vector<Rgb> px(static_cast<std::size_t>(iw) * ih);
    for (int r = 0; r < ih; ++r)
        for (int c = 0; c < iw; ++c) {
            const double val = bilinear(p, field, static_cast<double>(c) / f, static_cast<double>(ih - 1 - r) / f);
            px[static_cast<std::size_t>(r) * iw + c] = colour_at(sc.map, (val - t_lo) / (t_hi - t_lo));
        }
    const double pw = fr.dh * fr.s / f, ph = fr.dv * fr.s / f;
    o += format(
        "<defs><clipPath id=\"plot\"><rect x=\"%.2f\" y=\"%.2f\" width=\"%.2f\" height=\"%.2f\"/></clipPath>",
        fr.left, fr.top, fr.width, fr.height);
    o += "<linearGradient id=\"bar\" x1=\"0\" y1=\"1\" x2=\"0\" y2=\"0\">";
    for (int k = 0; k <= 32; ++k)
        o += format("<stop offset=\"%.4f\" stop-color=\"%s\"/>", k / 32.0, hex(colour_at(sc.map, k / 32.0)).c_str());
    o += "</linearGradient></defs>\n";
    o += "<g clip-path=\"url(#plot)\">\n";
    o += format(
        "<image class=\"raster\" x=\"%.3f\" y=\"%.3f\" width=\"%.3f\" height=\"%.3f\" data-pixels=\"%dx%d\" "
        "preserveAspectRatio=\"none\" xlink:href=\"data:image/png;base64,",
        fr.left - pw / 2, fr.top - ph / 2, iw * pw, ih * ph, iw, ih);
    o += base64(png_rgb(iw, ih, px));
    o += "\"/>\n";

    // Contours; on diverging maps negative levels dashed, the node dotted.
    double lowest = sc.hi;
    for (double level : sc.levels)
        if (level > 0) {
            lowest = level;
            break;
        }
    for (double level : sc.levels) {
        const double lv = sc.logarithmic ? std::log10(level) : level;
        // The node only where some value around it reaches half the lowest level.
        const double band = !sc.logarithmic && level == 0 ? 0.5 * lowest : 0;
        const std::vector<Polyline> lines = contour_lines(Plane{p.n1, p.n2, field}, lv, band);
        if (lines.empty()) continue;
        std::string d;
        for (const Polyline& line : lines) {
            for (std::size_t k = 0; k < line.points.size(); ++k)
                d += format("%c%.1f %.1f", k ? 'L' : 'M', fr.x(fr.h0 + line.points[k][0] * fr.dh),
                            fr.y(fr.v0 + line.points[k][1] * fr.dv));
            if (line.closed) d += 'Z';
        }
        std::string style;
        if (sc.logarithmic)
            style = "stroke=\"#ffffff\" stroke-opacity=\"0.55\" stroke-width=\"0.8\"";
        else if (level == 0)
            style = "stroke=\"#303030\" stroke-opacity=\"0.8\" stroke-width=\"1.3\" stroke-dasharray=\"1.5 3\"";
        else
            style = std::string("stroke=\"#1a1a1a\" stroke-opacity=\"0.5\" stroke-width=\"0.8\"") +
                    (level < 0 ? " stroke-dasharray=\"4 3\"" : "");
        o += "<path class=\"contour\" data-level=\"" + data_number(level) + "\" fill=\"none\" " + style +
             " stroke-linejoin=\"round\" stroke-linecap=\"round\" d=\"" + d + "\"/>\n";
    }

    // Atoms; those off the plane get a dashed ring.
    for (const AtomMark& a : view.atoms) {
        const double x = fr.x(a.h), y = fr.y(a.v);
        const bool in_plane = std::fabs(a.distance) < 0.05;
        o += format("<g class=\"atom\" data-atom=\"%d\" data-symbol=\"%s\" data-distance=\"%s\">", a.number,
                    xml_escape(a.symbol).c_str(), data_number(a.distance).c_str());
        o += "<title>" + xml_escape(a.symbol) + format(" (atom %d): %s bohr from the plane", a.number,
                                                        label(a.distance).c_str()) + "</title>";
        o += format(
            "<circle cx=\"%.2f\" cy=\"%.2f\" r=\"10\" fill=\"#ffffff\" fill-opacity=\"0.88\" stroke=\"#111\" "
            "stroke-width=\"1.3\"%s/>",
            x, y, in_plane ? "" : " stroke-dasharray=\"3 2\"");
        o += format(
            "<text x=\"%.2f\" y=\"%.2f\" font-size=\"11\" font-weight=\"bold\" text-anchor=\"middle\" "
            "fill=\"#111\">",
            x, y + 4) + xml_escape(a.symbol) + "</text></g>\n";
    }
    o += "</g>\n";

    // Frame, ticks and axis titles; one tick step for both axes.
    o += format("<rect x=\"%.2f\" y=\"%.2f\" width=\"%.2f\" height=\"%.2f\" fill=\"none\" stroke=\"#333\"/>\n",
                fr.left, fr.top, fr.width, fr.height);
    const double span = std::max(eh, ev);
    double step = std::pow(10.0, std::floor(std::log10(span / 6)));
    for (double m : {1.0, 2.0, 5.0, 10.0})
        if (span / (m * step) <= 8) {
            step *= m;
            break;
        }
    o += "<g class=\"axes\" font-size=\"12\" fill=\"#333\">\n";
    for (double t = std::ceil(fr.h0 / step - 1e-9) * step; t <= fr.h0 + eh + 1e-9 * span; t += step) {
        const double x = fr.x(t), yb = fr.top + fr.height;
        o += format("<line x1=\"%.2f\" y1=\"%.2f\" x2=\"%.2f\" y2=\"%.2f\" stroke=\"#333\"/>", x, yb, x, yb + 5);
        o += format("<text x=\"%.2f\" y=\"%.2f\" text-anchor=\"middle\">%s</text>\n", x, yb + 19,
                    label(std::fabs(t) < 1e-9 * span ? 0 : t).c_str());
    }
    for (double t = std::ceil(fr.v0 / step - 1e-9) * step; t <= fr.v0 + ev + 1e-9 * span; t += step) {
        const double y = fr.y(t);
        o += format("<line x1=\"%.2f\" y1=\"%.2f\" x2=\"%.2f\" y2=\"%.2f\" stroke=\"#333\"/>", fr.left - 5, y,
                    fr.left, y);
        o += format("<text x=\"%.2f\" y=\"%.2f\" text-anchor=\"end\">%s</text>\n", fr.left - 8, y + 4,
                    label(std::fabs(t) < 1e-9 * span ? 0 : t).c_str());
    }
    o += format("<text x=\"%.2f\" y=\"%.2f\" font-size=\"13\" text-anchor=\"middle\">%c (bohr)</text>\n",
                fr.left + fr.width / 2, fr.top + fr.height + 40, hname);
    o += format(
        "<text x=\"%.2f\" y=\"%.2f\" font-size=\"13\" text-anchor=\"middle\" transform=\"rotate(-90 %.2f "
        "%.2f)\">%c (bohr)</text>\n",
        fr.left - 52, fr.top + fr.height / 2, fr.left - 52, fr.top + fr.height / 2, vname);
    o += "</g>\n";

    // Colour bar with its ticks and the contour levels beside it.
    const double bar_top = fr.top, bar_bottom = fr.top + bar_h;
    auto bar_y = [&](double v) { return bar_bottom - std::clamp(sc.position(v), 0.0, 1.0) * bar_h; };
    // Arrow heads at ends where values run past the bar.
    const bool past_top = sc.clipped, past_bottom = sc.clipped || (sc.logarithmic && sl.min < sc.lo);
    o += format(
        "<g id=\"scale\" data-map=\"%s\" data-lo=\"%s\" data-hi=\"%s\" data-min=\"%s\" data-max=\"%s\" "
        "data-clipped=\"%d\" font-size=\"12\" fill=\"#333\">\n",
        sc.logarithmic ? "log" : "diverging", data_number(sc.lo).c_str(), data_number(sc.hi).c_str(),
        data_number(sl.min).c_str(), data_number(sl.max).c_str(), sc.clipped ? 1 : 0);
    o += format("<text x=\"%.2f\" y=\"%.2f\" text-anchor=\"middle\">a.u.%s</text>\n", bar_x + kBarWidth / 2,
                bar_top - (past_top ? 18 : 9), sc.logarithmic ? " (log)" : "");
    o += format(
        "<rect x=\"%.2f\" y=\"%.2f\" width=\"%.0f\" height=\"%.2f\" fill=\"url(#bar)\" stroke=\"#333\"/>\n", bar_x,
        bar_top, kBarWidth, bar_h);
    if (past_top)
        o += format("<path class=\"beyond\" d=\"M%.2f %.2fL%.2f %.2fL%.2f %.2fZ\" fill=\"%s\" stroke=\"#333\"/>\n",
                    bar_x, bar_top, bar_x + kBarWidth / 2, bar_top - 12, bar_x + kBarWidth, bar_top,
                    hex(colour_at(sc.map, 1)).c_str());
    if (past_bottom)
        o += format("<path class=\"beyond\" d=\"M%.2f %.2fL%.2f %.2fL%.2f %.2fZ\" fill=\"%s\" stroke=\"#333\"/>\n",
                    bar_x, bar_bottom, bar_x + kBarWidth / 2, bar_bottom + 12, bar_x + kBarWidth, bar_bottom,
                    hex(colour_at(sc.map, 0)).c_str());
    for (double level : sc.levels)
        o += format(
            "<line x1=\"%.2f\" y1=\"%.2f\" x2=\"%.2f\" y2=\"%.2f\" stroke=\"#1a1a1a\" stroke-opacity=\"0.45\"/>",
            bar_x - 4, bar_y(level), bar_x, bar_y(level));
    o += "\n";
    for (double t : sc.ticks) {
        const double y = bar_y(t);
        o += format("<line x1=\"%.2f\" y1=\"%.2f\" x2=\"%.2f\" y2=\"%.2f\" stroke=\"#333\"/>", bar_x + kBarWidth, y,
                    bar_x + kBarWidth + 5, y);
        o += format("<text class=\"tick\" x=\"%.2f\" y=\"%.2f\" data-value=\"%s\">%s</text>\n",
                    bar_x + kBarWidth + 8, y + 4, data_number(t).c_str(), label(t).c_str());
    }
    o += "</g>\n";

    // What the colours cannot say: the plane's true range and any clipping.
    std::string note = "values in the plane: " + label(sl.min) + " to " + label(sl.max);
    if (sc.clipped) note += "; colours clipped at \u00b1" + label(sc.hi);
    if (sc.logarithmic) note += "; colours below " + label(sc.lo) + " shown as " + label(sc.lo);
    note += sc.logarithmic ? "; contours at 1, 2, 5 \u00d7 10\u207f" : "; contours at \u00b11, 2, 5 \u00d7 10\u207f";
    o += format("<text class=\"note\" x=\"%.2f\" y=\"%.2f\" font-size=\"12\" fill=\"#555\">", fr.left,
                H - 14) + xml_escape(note) + "</text>\n";
    o += "</svg>\n";
    return o;
}

}  // namespace kvx::view
