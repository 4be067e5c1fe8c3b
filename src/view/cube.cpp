#include "view/cube.h"

#include <cstring>

#include "common/number_text.h"
#include "common/version.h"
#include "view/tool_io.h"

namespace kvx::view {

namespace {

constexpr const char* kTool = "kalvex-cube";
constexpr const char* kUsage = "usage: kalvex-cube JOB FILE.grid [OUT.cube] [--storage-order] [--any-job]";

std::string one_line(const std::string& s) {
    std::string out = s;
    for (char& c : out)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
    return out;
}

}  // namespace

bool write_cube(std::FILE* f, const std::string comments[2], const PropertyFile& pf,
                const std::vector<moldata::Atom>& atoms) {
    std::fprintf(f, "%s\n%s\n", one_line(comments[0]).c_str(), one_line(comments[1]).c_str());
    std::fprintf(f, "%5d%12.6f%12.6f%12.6f\n", static_cast<int>(atoms.size()), pf.origin[0], pf.origin[1],
                 pf.origin[2]);
    for (int d = 0; d < 3; ++d) {
        double v[3] = {0, 0, 0};
        v[d] = pf.step[d];
        std::fprintf(f, "%5d%12.6f%12.6f%12.6f\n", pf.count[d], v[0], v[1], v[2]);
    }
    for (const moldata::Atom& a : atoms)
        std::fprintf(f, "%5d%12.6f%12.6f%12.6f%12.6f\n", a.atomic_number, a.nuclear_charge, a.x, a.y, a.z);

    // "%13.5E" values through one buffer.
    const int nz = pf.count[2];
    std::size_t k = 0;
    common::TextBuffer out(f);
    for (int ix = 0; ix < pf.count[0]; ++ix)
        for (int iy = 0; iy < pf.count[1]; ++iy)
            for (int iz = 0; iz < nz; ++iz) {
                char* p = common::sci5(out.room(common::kNumberTextMax + 1), pf.values[k++]);
                if (iz % 6 == 5 || iz == nz - 1) *p++ = '\n';
                out.commit(p);
            }
    return out.flush() && !std::ferror(f);
}

int run_cube(int argc, char** argv) {
    if (common::answer_help_or_version(kTool, kUsage, argc, argv)) return 0;
    std::vector<std::string> args;
    ValueOrder order = ValueOrder::kXFastest;
    bool any_job = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--storage-order") == 0)
            order = ValueOrder::kStorage;
        else if (std::strcmp(argv[i], "--any-job") == 0)
            any_job = true;
        else if (argv[i][0] == '-' && argv[i][1] == '-')
            return report_failure(kTool, std::string("unknown option ") + argv[i] + "\n" + kUsage);
        else
            args.emplace_back(argv[i]);
    }
    if (args.size() < 2 || args.size() > 3) return report_failure(kTool, kUsage);
    const std::string& job = args[0];
    const std::string& in = args[1];
    const std::string out = args.size() == 3 ? args[2] : without_grid_suffix(in) + ".cube";

    PropertyFile pf;
    std::string error;
    if (!read_property_file(in, order, pf, error)) return report_failure(kTool, error);
    JobView jv;
    if (!read_job(job, jv, error)) return report_failure(kTool, error);
    if (!any_job)
        if (const std::string foreign = foreign_file_message(in, pf, job, jv); !foreign.empty())
            return report_failure(kTool, foreign);

    const PropertyName name = property_name_of(in);
    const std::string label = name.word.empty() ? "unknown property" : name.label();
    const std::string definition = define_property(name, jv.closed_shell);
    const std::string comments[2] = {
        "Kalvex cube: job " + job + ", property " + label + (definition.empty() ? "" : ": " + definition),
        "stamp " + std::to_string(pf.stamp) + ", from " + in + " (bohr; x outermost, z innermost)"};
    if (!write_atomically(
            out, [&](std::FILE* f) { return write_cube(f, comments, pf, jv.atoms); }, error))
        return report_failure(kTool, error);
    std::printf("Cube file: %s\n", out.c_str());
    return 0;
}

}  // namespace kvx::view
