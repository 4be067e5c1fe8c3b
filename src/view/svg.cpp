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
    va_list ap, again;
    va_start(ap, fmt);
    va_copy(again, ap);
    const int n = std::vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    std::string out(n > 0 ? static_cast<std::size_t>(n) : 0, '\0');
    std::vsnprintf(out.data(), out.size() + 1, fmt, again);
    va_end(again);
    return out;
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
double bilinear(const Plane& p, double x, double y) {
    const int i = std::min(static_cast<int>(x), p.n1 - 2), j = std::min(static_cast<int>(y), p.n2 - 2);
    const double u = x - i, w = y - j;
    return (1 - u) * (1 - w) * p.at(i, j) + u * (1 - w) * p.at(i + 1, j) + (1 - u) * w * p.at(i, j + 1) +
           u * w * p.at(i + 1, j + 1);
}

// Picture coordinates (px) of plane coordinates (bohr); v runs upwards.
struct Frame {
    double h0 = 0, v0 = 0, dh = 0, dv = 0;  // plane origin and steps, bohr
    double eh = 0, ev = 0;                  // plane extents, bohr
    double s = 0;                           // px per bohr
    double left = kLeft, top = kTop, width = 0, height = 0;
    double bar_x = 0, bar_h = 0;            // colour bar
    double W = 0, H = 0;                    // whole picture
    double x(double h) const { return left + (h - h0) * s; }
    double y(double v) const { return top + height - (v - v0) * s; }
};

Frame frame_of(const PropertyFile& pf, const Slice& sl) {
    Frame fr;
    fr.h0 = pf.origin[sl.h_axis];
    fr.v0 = pf.origin[sl.v_axis];
    fr.dh = pf.step[sl.h_axis];
    fr.dv = pf.step[sl.v_axis];
    fr.eh = (sl.plane.n1 - 1) * fr.dh;
    fr.ev = (sl.plane.n2 - 1) * fr.dv;
    fr.s = kPlotSize / std::max(fr.eh, fr.ev);
    fr.width = fr.eh * fr.s;
    fr.height = fr.ev * fr.s;
    fr.bar_h = std::max(fr.height, kMinBarHeight);
    fr.bar_x = fr.left + fr.width + kBarGap;
    fr.W = std::ceil(fr.bar_x + kBarWidth + kBarLabels);
    fr.H = std::ceil(kTop + fr.bar_h + kBottom);
    return fr;
}

// The plane in the quantity the colours are linear in: log10 of the value
// on logarithmic scales (floored far below the bar), else the value.
Plane colour_field(const Plane& p, const ColourScale& sc) {
    Plane f = p;
    if (sc.logarithmic)
        for (double& v : f.v) v = std::log10(std::max(v, sc.lo * 1e-3));
    return f;
}

void draw_title(std::string& o, const SliceView& view, const Frame& fr) {
    const Slice& sl = view.slice;
    std::string what = view.job + " \u2014 " + view.property;
    if (!view.description.empty()) what += " (" + view.description + ")";
    o += format("<text x=\"%.1f\" y=\"28\" font-size=\"18\" font-weight=\"bold\" fill=\"#1a1a1a\">", fr.left) +
         xml_escape(what) + "</text>\n";
    o += format("<text class=\"plane\" x=\"%.1f\" y=\"50\" font-size=\"13\" fill=\"#444\">", fr.left) +
         format("%c = %s bohr (plane %d of %d); atoms within 1 bohr of the plane marked", 'x' + sl.axis,
                minus_sign(format("%.3f", sl.coordinate)).c_str(), sl.index + 1, view.pf->count[sl.axis]) +
         "</text>\n";
}

// Pixel centres on the grid points and on f - 1 points between neighbours,
// coloured from the bilinear field, so the picture stays smooth on coarse
// grids; the image overhangs the plot by half a pixel, which the clip hides.
void draw_raster(std::string& o, const Plane& field, const ColourScale& sc, const Frame& fr) {
    const double t_lo = sc.logarithmic ? std::log10(sc.lo) : sc.lo;
    const double t_hi = sc.logarithmic ? std::log10(sc.hi) : sc.hi;
    const int f = std::clamp(static_cast<int>(std::ceil(180.0 / (std::max(field.n1, field.n2) - 1))), 1, 8);
    const int iw = (field.n1 - 1) * f + 1, ih = (field.n2 - 1) * f + 1;
    std::vector<Rgb> px(static_cast<std::size_t>(iw) * ih);
    for (int r = 0; r < ih; ++r)
        for (int c = 0; c < iw; ++c) {
            const double val = bilinear(field, static_cast<double>(c) / f, static_cast<double>(ih - 1 - r) / f);
            px[static_cast<std::size_t>(r) * iw + c] = colour_at(sc.map, (val - t_lo) / (t_hi - t_lo));
        }
    const double pw = fr.dh * fr.s / f, ph = fr.dv * fr.s / f;
    o += format(
        "<image class=\"raster\" x=\"%.3f\" y=\"%.3f\" width=\"%.3f\" height=\"%.3f\" data-pixels=\"%dx%d\" "
        "preserveAspectRatio=\"none\" xlink:href=\"data:image/png;base64,",
        fr.left - pw / 2, fr.top - ph / 2, iw * pw, ih * ph, iw, ih);
    o += base64(png_rgb(iw, ih, px));
    o += "\"/>\n";
}

// On diverging maps negative levels are dashed and the node dotted; the node
// is drawn only where some value around it reaches half the lowest level.
void draw_contours(std::string& o, const Plane& field, const ColourScale& sc, const Frame& fr) {
    double lowest = sc.hi;
    for (double level : sc.levels)
        if (level > 0) {
            lowest = level;
            break;
        }
    for (double level : sc.levels) {
        const double band = !sc.logarithmic && level == 0 ? 0.5 * lowest : 0;
        const std::vector<Polyline> lines = contour_lines(field, sc.logarithmic ? std::log10(level) : level, band);
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
}

// Atoms off the plane get a dashed ring.
void draw_atoms(std::string& o, const std::vector<AtomMark>& atoms, const Frame& fr) {
    for (const AtomMark& a : atoms) {
        const double x = fr.x(a.h), y = fr.y(a.v);
        const bool in_plane = std::fabs(a.distance) < 0.05;
        o += format("<g class=\"atom\" data-atom=\"%d\" data-symbol=\"%s\" data-distance=\"%s\">", a.number,
                    xml_escape(a.symbol).c_str(), data_number(a.distance).c_str());
        o += "<title>" + xml_escape(a.symbol) +
             format(" (atom %d): %s bohr from the plane", a.number, label(a.distance).c_str()) + "</title>";
        o += format(
            "<circle cx=\"%.2f\" cy=\"%.2f\" r=\"10\" fill=\"#ffffff\" fill-opacity=\"0.88\" stroke=\"#111\" "
            "stroke-width=\"1.3\"%s/>",
            x, y, in_plane ? "" : " stroke-dasharray=\"3 2\"");
        o += format(
                 "<text x=\"%.2f\" y=\"%.2f\" font-size=\"11\" font-weight=\"bold\" text-anchor=\"middle\" "
                 "fill=\"#111\">",
                 x, y + 4) +
             xml_escape(a.symbol) + "</text></g>\n";
    }
}

// Frame, ticks and axis titles; one round tick step for both axes.
void draw_axes(std::string& o, const Slice& sl, const Frame& fr) {
    o += format("<rect x=\"%.2f\" y=\"%.2f\" width=\"%.2f\" height=\"%.2f\" fill=\"none\" stroke=\"#333\"/>\n",
                fr.left, fr.top, fr.width, fr.height);
    const double span = std::max(fr.eh, fr.ev);
    double step = std::pow(10.0, std::floor(std::log10(span / 6)));
    for (double m : {1.0, 2.0, 5.0, 10.0})
        if (span / (m * step) <= 8) {
            step *= m;
            break;
        }
    auto tick_label = [&](double t) { return label(std::fabs(t) < 1e-9 * span ? 0 : t); };
    o += "<g class=\"axes\" font-size=\"12\" fill=\"#333\">\n";
    for (double t = std::ceil(fr.h0 / step - 1e-9) * step; t <= fr.h0 + fr.eh + 1e-9 * span; t += step) {
        const double x = fr.x(t), yb = fr.top + fr.height;
        o += format("<line x1=\"%.2f\" y1=\"%.2f\" x2=\"%.2f\" y2=\"%.2f\" stroke=\"#333\"/>", x, yb, x, yb + 5);
        o += format("<text x=\"%.2f\" y=\"%.2f\" text-anchor=\"middle\">%s</text>\n", x, yb + 19,
                    tick_label(t).c_str());
    }
    for (double t = std::ceil(fr.v0 / step - 1e-9) * step; t <= fr.v0 + fr.ev + 1e-9 * span; t += step) {
        const double y = fr.y(t);
        o += format("<line x1=\"%.2f\" y1=\"%.2f\" x2=\"%.2f\" y2=\"%.2f\" stroke=\"#333\"/>", fr.left - 5, y,
                    fr.left, y);
        o += format("<text x=\"%.2f\" y=\"%.2f\" text-anchor=\"end\">%s</text>\n", fr.left - 8, y + 4,
                    tick_label(t).c_str());
    }
    o += format("<text x=\"%.2f\" y=\"%.2f\" font-size=\"13\" text-anchor=\"middle\">%c (bohr)</text>\n",
                fr.left + fr.width / 2, fr.top + fr.height + 40, 'x' + sl.h_axis);
    const double xl = fr.left - 52, yl = fr.top + fr.height / 2;
    o += format(
        "<text x=\"%.2f\" y=\"%.2f\" font-size=\"13\" text-anchor=\"middle\" transform=\"rotate(-90 %.2f %.2f)\">"
        "%c (bohr)</text>\n",
        xl, yl, xl, yl, 'x' + sl.v_axis);
    o += "</g>\n";
}

// The bar with its ticks, the contour levels marked on its left, and arrow
// heads at ends that values run past.
void draw_colour_bar(std::string& o, const Slice& sl, const ColourScale& sc, const Frame& fr) {
    const double top = fr.top, bottom = fr.top + fr.bar_h, x = fr.bar_x;
    auto bar_y = [&](double v) { return bottom - std::clamp(sc.position(v), 0.0, 1.0) * fr.bar_h; };
    const bool past_top = sc.clipped, past_bottom = sc.clipped || (sc.logarithmic && sl.min < sc.lo);
    o += format(
        "<g id=\"scale\" data-map=\"%s\" data-lo=\"%s\" data-hi=\"%s\" data-min=\"%s\" data-max=\"%s\" "
        "data-clipped=\"%d\" font-size=\"12\" fill=\"#333\">\n",
        sc.logarithmic ? "log" : "diverging", data_number(sc.lo).c_str(), data_number(sc.hi).c_str(),
        data_number(sl.min).c_str(), data_number(sl.max).c_str(), sc.clipped ? 1 : 0);
    o += format("<text x=\"%.2f\" y=\"%.2f\" text-anchor=\"middle\">a.u.%s</text>\n", x + kBarWidth / 2,
                top - (past_top ? 18 : 9), sc.logarithmic ? " (log)" : "");
    o += format("<rect x=\"%.2f\" y=\"%.2f\" width=\"%.0f\" height=\"%.2f\" fill=\"url(#bar)\" stroke=\"#333\"/>\n",
                x, top, kBarWidth, fr.bar_h);
    if (past_top)
        o += format("<path class=\"beyond\" d=\"M%.2f %.2fL%.2f %.2fL%.2f %.2fZ\" fill=\"%s\" stroke=\"#333\"/>\n", x,
                    top, x + kBarWidth / 2, top - 12, x + kBarWidth, top, hex(colour_at(sc.map, 1)).c_str());
    if (past_bottom)
        o += format("<path class=\"beyond\" d=\"M%.2f %.2fL%.2f %.2fL%.2f %.2fZ\" fill=\"%s\" stroke=\"#333\"/>\n", x,
                    bottom, x + kBarWidth / 2, bottom + 12, x + kBarWidth, bottom, hex(colour_at(sc.map, 0)).c_str());
    for (double level : sc.levels)
        o += format("<line x1=\"%.2f\" y1=\"%.2f\" x2=\"%.2f\" y2=\"%.2f\" stroke=\"#1a1a1a\" stroke-opacity=\"0.45\"/>",
                    x - 4, bar_y(level), x, bar_y(level));
    o += "\n";
    for (double t : sc.ticks) {
        const double y = bar_y(t);
        o += format("<line x1=\"%.2f\" y1=\"%.2f\" x2=\"%.2f\" y2=\"%.2f\" stroke=\"#333\"/>", x + kBarWidth, y,
                    x + kBarWidth + 5, y);
        o += format("<text class=\"tick\" x=\"%.2f\" y=\"%.2f\" data-value=\"%s\">%s</text>\n", x + kBarWidth + 8,
                    y + 4, data_number(t).c_str(), label(t).c_str());
    }
    o += "</g>\n";
}

// What the colours cannot say: the plane's true range and any clipping.
void draw_note(std::string& o, const Slice& sl, const ColourScale& sc, const Frame& fr) {
    std::string note = "values in the plane: " + label(sl.min) + " to " + label(sl.max);
    if (sc.clipped) note += "; colours clipped at \u00b1" + label(sc.hi);
    if (sc.logarithmic) note += "; colours below " + label(sc.lo) + " shown as " + label(sc.lo);
    note += sc.logarithmic ? "; contours at 1, 2, 5 \u00d7 10\u207f" : "; contours at \u00b11, 2, 5 \u00d7 10\u207f";
    o += format("<text class=\"note\" x=\"%.2f\" y=\"%.2f\" font-size=\"12\" fill=\"#555\">", fr.left, fr.H - 14) +
         xml_escape(note) + "</text>\n";
}

}  // namespace

std::string slice_svg(const SliceView& view) {
    const Slice& sl = view.slice;
    const ColourScale& sc = view.scale;
    const Frame fr = frame_of(*view.pf, sl);
    const Plane field = colour_field(sl.plane, sc);

    std::string o;
    o.reserve(1 << 16);
    o += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    o += format(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" xmlns:xlink=\"http://www.w3.org/1999/xlink\" "
        "width=\"%.0f\" height=\"%.0f\" viewBox=\"0 0 %.0f %.0f\" font-family=\"%s\" "
        "data-plane-axis=\"%c\" data-plane=\"%d\" data-planes=\"%d\" data-plane-coordinate=\"%s\">\n",
        fr.W, fr.H, fr.W, fr.H, kFont, 'x' + sl.axis, sl.index + 1, view.pf->count[sl.axis],
        data_number(sl.coordinate).c_str());
    o += format("<rect width=\"%.0f\" height=\"%.0f\" fill=\"#ffffff\"/>\n", fr.W, fr.H);
    o += format("<defs><clipPath id=\"plot\"><rect x=\"%.2f\" y=\"%.2f\" width=\"%.2f\" height=\"%.2f\"/></clipPath>",
                fr.left, fr.top, fr.width, fr.height);
    o += "<linearGradient id=\"bar\" x1=\"0\" y1=\"1\" x2=\"0\" y2=\"0\">";
    for (int k = 0; k <= 32; ++k)
        o += format("<stop offset=\"%.4f\" stop-color=\"%s\"/>", k / 32.0, hex(colour_at(sc.map, k / 32.0)).c_str());
    o += "</linearGradient></defs>\n";

    draw_title(o, view, fr);
    o += "<g clip-path=\"url(#plot)\">\n";
    draw_raster(o, field, sc, fr);
    draw_contours(o, field, sc, fr);
    draw_atoms(o, view.atoms, fr);
    o += "</g>\n";
    draw_axes(o, sl, fr);
    draw_colour_bar(o, sl, sc, fr);
    draw_note(o, sl, sc, fr);
    o += "</svg>\n";
    return o;
}

}  // namespace kvx::view
