// The request words and the properties they compute: one table read by the
// input word matching, the job driver, the file namer and the view tools.
// It lives beside DataFlags because every request names the flag it needs.
#pragma once

#include <iterator>
#include <string_view>

#include "moldata/molecule.h"

namespace kvx::moldata {

struct PropertyWord {
    const char* request;      // the input word, lower case ("-moa")
    int nargs;                // argument words it takes: 0, 1 or 3
    int flag;                 // DataFlags index it needs; -1 for none
    const char* missing;      // printed when that flag is 0
    bool writes_file;         // a property file named with the word after the dash
    bool orbital;             // the file name carries the orbital number ("moa-3")
    bool is_signed;           // values take both signs (orbitals, spin, potential)
    const char* description;  // "alpha orbital", for pictures and the usage text
};

// In lookup order: an input word queues the first entry it equals.
// request, nargs, flag, missing, writes_file, orbital, is_signed, description
inline constexpr PropertyWord kPropertyWords[] = {
    {"-end", 0, -1, nullptr, false, false, false, "end of the run"},
    {"-ep", 0, DataFlags::kDensity, "Electrostatic potential not available for current molecule", true, false, true,
     "electrostatic potential"},
    {"-den", 0, DataFlags::kOccupied, "Total density not available for current molecule", true, false, false,
     "total density"},
    {"-dena", 0, DataFlags::kAlpha, "Alpha density not available for current molecule", true, false, false,
     "alpha density"},
    {"-denb", 0, DataFlags::kBeta, "Beta density not available for current molecule", true, false, false,
     "beta density"},
    {"-spin", 0, DataFlags::kOccupied, "Spin density not available for current molecule", true, false, true,
     "spin density"},
    {"-moa", 1, DataFlags::kAlpha, "Alpha MOs not available for current molecule", true, true, true, "alpha orbital"},
    {"-mob", 1, DataFlags::kBeta, "Beta MOs not available for current molecule", true, true, true, "beta orbital"},
    {"-loa", 1, DataFlags::kLocalized, "Localized Alpha MOs not available for current molecule", true, true, true,
     "localized alpha orbital"},
    {"-lob", 1, DataFlags::kLocalizedBeta, "Localized Beta MOs not available for current molecule", true, true, true,
     "localized beta orbital"},
    {"-nos", 1, DataFlags::kNatural, "Natural Orbitals not available for current molecule", true, true, true,
     "natural orbital"},
    {"-partd", 3, DataFlags::kOccupied, "Partial density not available for current molecule", true, false, false,
     "partial density"},
    {"-parts", 3, DataFlags::kOccupied, "Partial spin density not available for current molecule", true, false, true,
     "partial spin density"},
    {"-chelp", 0, DataFlags::kDensity, "CHELP not available for current molecule", false, false, false,
     "CHELPG charges fitted to the potential, report in JOBNAME.chelp"},
};

inline constexpr int kPropertyWordCount = static_cast<int>(std::size(kPropertyWords));

// Indices into kPropertyWords, in table order.
enum RequestKind {
    kReqEnd,
    kReqEp,
    kReqDen,
    kReqDena,
    kReqDenb,
    kReqSpin,
    kReqMoa,
    kReqMob,
    kReqLoa,
    kReqLob,
    kReqNos,
    kReqPartd,
    kReqParts,
    kReqChelp
};
static_assert(kReqChelp + 1 == kPropertyWordCount);

// The word of property file names: the request word without its dash.
constexpr const char* file_word(const PropertyWord& p) { return p.request + 1; }

// The entry whose files are named with word ("den"); null for any other word.
constexpr const PropertyWord* find_file_word(std::string_view word) {
    for (const PropertyWord& p : kPropertyWords)
        if (p.writes_file && word == file_word(p)) return &p;
    return nullptr;
}

}  // namespace kvx::moldata
