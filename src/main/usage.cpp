#include "main/usage.h"

#include <strings.h>

#include <cstdio>

#include "moldata/property_words.h"

namespace kvx::main {

namespace {

struct OptionHelp {
    const char* names;  // one option, or the three of an axis triple
    const char* value;
    const char* fallback;  // the default, as a user reads it
    const char* meaning;
};

// Every option of the option table, grouped as a user sets them.
constexpr OptionHelp kOptionHelp[] = {
    {"-xs -ys -zs", "X", "atoms' box - 5.7", "lowest corner of the grid box (bohr)"},
    {"-xl -yl -zl", "L", "atoms' box + 2 x 5.7", "edge lengths of the grid box (bohr)"},
    {"-xp -yp -zp", "N", "30", "points per axis; 2 or less: as many as the spacing -xr -yr -zr needs"},
    {"-xr -yr -zr", "R", "0.5", "spacing (bohr), used only when the point count is 2 or less"},
    {"-moacc", "E", "1e-6", "accuracy of orbitals and densities (screening)"},
    {"-thresh", "E", "1e-6", "integral threshold of the potential and CHELPG"},
    {"-memmax", "MB", "400", "memory for the potential's integral blocks"},
    {"-point", "", "off", "single-point mode at -px -py -pz; each -point flips it"},
    {"-px -py -pz", "X", "0", "the single point (bohr)"},
    {"-base", "NAME", "stamp text", "base of output file names"},
    {"-path", "DIR", "$KVX_SCRDIR or ./", "folder of output files"},
    {"-force", "0|1", "0", "1: recompute even when an up-to-date file exists"},
    {"-fgrid", "0|1", "1", "value order in files: 1 x fastest, 0 storage order (z fastest)"},
    {"-banner", "0|1", "0", "1: print the banner"},
    {"-numt", "N", "-4", "threads: N, 0 one per core, negative one"},
};

const char* argument_names(int nargs) { return nargs == 1 ? "N" : nargs == 3 ? "TYPE A B" : ""; }

void append(std::string& out, const char* fmt, const char* a, const char* b, const char* c = "", const char* d = "") {
    char line[512];
    std::snprintf(line, sizeof line, fmt, a, b, c, d);
    out += line;
}

}  // namespace

std::string usage_text() {
    std::string out =
        "Usage: kalvex JOBNAME [options and requests...]\n"
        "\n"
        "JOBNAME is the path prefix of the job's files (JOBNAME.control, .coord, .basis, .mos, ...).\n"
        "After the command line Kalvex reads further lines of words from standard input whenever no\n"
        "request is left; -end or the end of the input ends the run. Words are case-insensitive, and\n"
        "the options of a line take effect before its first request.\n"
        "\n"
        "Requests:\n";
    for (const moldata::PropertyWord& p : moldata::kPropertyWords) {
        std::string word = std::string(p.request) + " " + argument_names(p.nargs);
        append(out, "  %-16s %s\n", word.c_str(), p.description ? p.description : "");
    }
    out +=
        "  N: one orbital, numbered from 1 (-moa 5). TYPE: 1 canonical, 2 localized, 0 natural\n"
        "  orbitals (-partd only). A, B: alpha and beta orbital lists, items a, a-b, a- and -b\n"
        "  separated by commas (-partd 1 1-3,5 1-2).\n"
        "\n"
        "Options:\n";
    out += "                   default\n";
    for (const OptionHelp& o : kOptionHelp) {
        std::string names = std::string(o.names) + " " + o.value;
        append(out, "  %-16s %-22s %s\n", names.c_str(), o.fallback, o.meaning);
    }
    out +=
        "\n"
        "Densities leave out the cross terms between shells, orbitals take the displacement atom\n"
        "minus point, property files hold six decimals and kalvex always ends with status 0: see\n"
        "\"What Kalvex computes\" in the README. kalvex-info JOBNAME shows the job: atoms, basis,\n"
        "orbitals with their energies and the HOMO and LUMO, and the default grid.\n";
    return out;
}

bool is_help_word(const char* word) {
    return word && (strcasecmp(word, "-h") == 0 || strcasecmp(word, "-help") == 0 || strcasecmp(word, "--help") == 0);
}

bool is_version_word(const char* word) { return word && strcasecmp(word, "--version") == 0; }

}  // namespace kvx::main
