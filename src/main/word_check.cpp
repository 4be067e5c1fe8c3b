#include "main/word_check.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/version.h"
#include "main/input.h"
#include "main/usage.h"
#include "moldata/property_words.h"

namespace kvx::main {

using moldata::DataFlags;
using moldata::Molecule;
using moldata::OrbitalSet;

namespace {

std::string lower(const char* w) {
    std::string s = w ? w : "";
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

int request_index(const std::string& w) {
    for (int t = 0; t < moldata::kPropertyWordCount; ++t)
        if (w == moldata::kPropertyWords[t].request) return t;
    return -1;
}

// The whole text is one integer / one finite number.
bool whole_number(const char* t, long& v) {
    char* end = nullptr;
    errno = 0;
    v = std::strtol(t, &end, 10);
    return end != t && *end == '\0' && errno == 0 && v >= INT_MIN && v <= INT_MAX;
}
bool real_number(const char* t) {
    char* end = nullptr;
    const double v = std::strtod(t, &end);
    return end != t && *end == '\0' && std::isfinite(v);
}

// What the option table makes of a value: the leading integer, clamped.
long leading_int(const char* t) {
    const long v = std::strtol(t, nullptr, 10);
    return v > INT_MAX ? INT_MAX : v < INT_MIN ? INT_MIN : v;
}

std::string number_text(double v) {
    char b[64];
    std::snprintf(b, sizeof b, "%g", v);
    return b;
}

std::string current_value(const Option& o) {
    switch (o.type) {
        case 'i':
            return std::to_string(o.ival);
        case 'd':
            return number_text(o.dval);
        default:
            return std::string("\"") + o.cval + "\"";
    }
}

// Edits (insertion, deletion, substitution, swap of neighbours) that turn a into b.
int edit_distance(const std::string& a, const std::string& b) {
    const std::size_t n = a.size(), m = b.size();
    std::vector<std::vector<int>> d(n + 1, std::vector<int>(m + 1));
    for (std::size_t i = 0; i <= n; ++i) d[i][0] = static_cast<int>(i);
    for (std::size_t j = 0; j <= m; ++j) d[0][j] = static_cast<int>(j);
    for (std::size_t i = 1; i <= n; ++i)
        for (std::size_t j = 1; j <= m; ++j) {
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
    return d[n][m];
}

// The known word nearest to w, when a slip of the keyboard explains it:
// one edit for short words, two for longer ones; a missing dash is free.
std::string nearest_word(const std::string& w) {
    const std::string dashed = !w.empty() && w[0] == '-' ? w : "-" + w;
    const int allowed = dashed.size() <= 4 ? 1 : 2;
    std::string best;
    int best_d = allowed + 1;
    auto consider = [&](const char* name) {
        const int d = edit_distance(dashed, name);
        if (d < best_d) {
            best_d = d;
            best = name;
        }
    };
    for (const moldata::PropertyWord& p : moldata::kPropertyWords) consider(p.request);
    for (const Option& o : options) consider(o.name);
    consider("--help");
    consider("--version");
    return best;
}

// One item of an orbital list: a, a-b, a- (to last) or -b (from 1), with
// plain decimal numbers; false for anything else.
bool parse_list_item(const std::string& item, long last, long& a, long& b) {
    auto digits = [](const std::string& t) {
        return !t.empty() && t.size() < 10 &&
               std::all_of(t.begin(), t.end(), [](char c) { return std::isdigit(static_cast<unsigned char>(c)); });
    };
    const std::size_t dash = item.find('-');
    if (dash == std::string::npos) {
        if (!digits(item)) return false;
        a = b = std::stol(item);
        return true;
    }
    const std::string left = item.substr(0, dash), right = item.substr(dash + 1);
    if (left.empty() && digits(right)) {
        a = 1;
        b = std::stol(right);
    } else if (digits(left) && right.empty()) {
        a = std::stol(left);
        b = last;
    } else if (digits(left) && digits(right)) {
        a = std::stol(left);
        b = std::stol(right);
    } else {
        return false;
    }
    return true;
}

struct SetInfo {
    const OrbitalSet* set = nullptr;  // null when the request cannot run anyway
    const char* name = "";
};

bool usable(const Molecule& mol, int flag) {
    const DataFlags f = mol.flags ? *mol.flags : moldata::compute_flags(mol);
    return f[flag] != 0;
}

SetInfo set_of_request(const Molecule& mol, int kind) {
    switch (kind) {
        case kReqMoa:
            return {usable(mol, DataFlags::kAlpha) ? mol.alpha.get() : nullptr, "alpha"};
        case kReqMob:
            return {usable(mol, DataFlags::kBeta) ? mol.beta.get() : nullptr, "beta"};
        case kReqLoa:
            return {usable(mol, DataFlags::kLocalized) ? mol.localized.get() : nullptr, "localized alpha"};
        case kReqLob:
            return {usable(mol, DataFlags::kLocalizedBeta) ? mol.localized_beta.get() : nullptr, "localized beta"};
        case kReqNos:
            return {usable(mol, DataFlags::kNatural) ? mol.natural.get() : nullptr, "natural"};
        default:
            return {};
    }
}

// Orbital sets of a partial density's type: alpha list, beta list.
std::pair<SetInfo, SetInfo> sets_of_type(const Molecule& mol, int type) {
    switch (type) {
        case 1:
            return {{usable(mol, DataFlags::kAlpha) ? mol.alpha.get() : nullptr, "alpha"},
                    {usable(mol, DataFlags::kBeta) ? mol.beta.get() : nullptr, "beta"}};
        case 2:
            return {{usable(mol, DataFlags::kLocalized) ? mol.localized.get() : nullptr, "localized alpha"},
                    {usable(mol, DataFlags::kLocalizedBeta) ? mol.localized_beta.get() : nullptr, "localized beta"}};
        case 0:
            return {{usable(mol, DataFlags::kNatural) ? mol.natural.get() : nullptr, "natural"}, {}};
        default:
            return {};
    }
}

std::string orbitals_of(const SetInfo& s) {
    return std::to_string(s.set->count) + " " + s.name + " orbital" + (s.set->count == 1 ? "" : "s");
}

void check_orbital_argument(std::vector<std::string>& out, const std::string& req, const char* arg, const SetInfo& s) {
    const std::string said = req + " " + arg + ": ";
    char* end = nullptr;
    const long n = std::strtol(arg, &end, 10);
    if (end == arg) {
        out.push_back(said + "\"" + arg + "\" is not an orbital number, so nothing is computed (" + req +
                      " 5 computes orbital 5)");
        return;
    }
    if (*end != '\0') {
        std::string how = "one " + req + " per orbital";
        long a = 0, b = 0;
        if (std::strchr(arg, '-') && parse_list_item(arg, 0, a, b) && a >= 1 && b > a && b - a < 6) {
            how.clear();
            for (long k = a; k <= b; ++k) how += (k > a ? " " : "") + req + " " + std::to_string(k);
        }
        out.push_back(said + "one orbital per request: only orbital " + std::to_string(n) + " is computed (" + how +
                      "; -partd gives the density of several)");
    }
    if (n < 1)
        out.push_back(said + "orbitals are numbered from 1, so nothing is computed");
    else if (s.set && n > s.set->count)
        out.push_back(said + "the job has " + orbitals_of(s) + ", the last is " + std::to_string(s.set->count) +
                      "; nothing is computed");
}

// An orbital list of -partd / -parts: items a, a-b, a- and -b.
void check_orbital_list(std::vector<std::string>& out, const std::string& said, const char* list, const SetInfo& s,
                        const char* which) {
    const std::string text = list;
    std::size_t from = 0;
    while (from <= text.size()) {
        std::size_t comma = text.find(',', from);
        if (comma == std::string::npos) comma = text.size();
        const std::string item = text.substr(from, comma - from);
        from = comma + 1;
        if (item.empty()) continue;
        long a = 0, b = 0;
        const bool ok = parse_list_item(item, s.set ? s.set->count : 0, a, b);
        if (!ok) {
            out.push_back(said + "\"" + item + "\" in the " + which +
                          " list is not an orbital number or range (a, a-b, a-, -b)");
            continue;
        }
        if (a < 1 || b < a) {
            out.push_back(said + "\"" + item + "\" in the " + which + " list selects no orbital (numbers start at 1)");
            continue;
        }
        if (s.set && b > s.set->count) {
            const int last = s.set->count;
            const std::string beyond =
                a > last ? item : std::to_string(last + 1) + (b > last + 1 ? "-" + std::to_string(b) : "");
            out.push_back(said + "the job has " + orbitals_of(s) + "; " + beyond + " in the " + which +
                          " list lie beyond the last (" + std::to_string(last) + ") and are left out");
        }
    }
}

void check_partial(std::vector<std::string>& out, const std::string& req, int kind, int avail, char* const* args,
                   const Molecule& mol) {
    const bool spin = kind == kReqParts;
    std::string said = req;
    for (int k = 0; k < avail && k < 3; ++k) said += std::string(" ") + args[k];
    said += ": ";
    if (avail < 1) {
        out.push_back(said + "needs three words, the orbital type and the alpha and beta orbital lists (" + req +
                      " 1 1-3 1-2); nothing is computed");
        return;
    }
    int type = -666;
    if (std::sscanf(args[0], "%d", &type) != 1) type = -666;
    const bool allowed = spin ? (type == 1 || type == 2) : (type >= 0 && type <= 2);
    if (!allowed) {
        out.push_back(said + "the orbital type is " +
                      (spin ? std::string("1 (canonical) or 2 (localized)")
                            : std::string("1 (canonical), 2 (localized) or 0 (natural orbitals)")) +
                      ", so nothing is computed");
        return;
    }
    long whole = 0;
    if (!whole_number(args[0], whole))
        out.push_back(said + "\"" + args[0] + "\" is read as orbital type " + std::to_string(type));
    if (avail < 3)
        out.push_back(said + "needs three words, the orbital type and the alpha and beta orbital lists (" + req +
                      " 1 1-3 1-2); a list not given selects the occupied orbitals");
    const auto [alpha, beta] = sets_of_type(mol, type);
    if (avail >= 2) check_orbital_list(out, said, args[1], alpha, "alpha");
    if (avail >= 3 && beta.set) check_orbital_list(out, said, args[2], beta, "beta");
}

}  // namespace

std::vector<std::string> word_warnings(int count, char* const* words, const Molecule& mol) {
    std::vector<std::string> out;
    std::vector<char> known(static_cast<std::size_t>(count), 0);
    std::vector<std::string> low(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) low[i] = lower(words[i]);

    // Options, then requests, in word order as the two passes read them.
    std::vector<std::pair<int, std::string>> found;  // word index, message
    for (int i = 0; i < count; ++i) {
        const Option* o = find_option(low[i].c_str());
        if (!o) continue;
        known[i] = 1;
        if (o->type == 'l') continue;
        if (i + 1 >= count) {
            found.emplace_back(i, std::string(o->name) + " without a value: it keeps " + current_value(*o));
            continue;
        }
        known[i + 1] = 1;
        const char* v = words[i + 1];
        long whole = 0;
        if (o->type == 'i' && !whole_number(v, whole))
            found.emplace_back(
                i, std::string(o->name) + " " + v + ": not a whole number; read as " + std::to_string(leading_int(v)));
        if (o->type == 'd' && !real_number(v))
            found.emplace_back(i,
                               std::string(o->name) + " " + v + ": not a number; read as " + number_text(std::atof(v)));
    }
    for (int i = 0; i < count; ++i) {
        const int t = request_index(low[i]);
        if (t < 0) continue;
        known[i] = 1;
        const moldata::PropertyWord& p = moldata::kPropertyWords[t];
        const int avail = std::min(p.nargs, count - 1 - i);
        for (int k = 1; k <= avail; ++k) known[i + k] = 1;
        std::vector<std::string> msgs;
        if (p.orbital) {
            if (avail < 1)
                msgs.push_back(low[i] + " without an orbital number: nothing is computed (" + low[i] +
                               " 5 computes orbital 5)");
            else
                check_orbital_argument(msgs, low[i], words[i + 1], set_of_request(mol, t));
        } else if (p.nargs == 3) {
            check_partial(msgs, low[i], t, avail, words + i + 1, mol);
        }
        for (auto& m : msgs) found.emplace_back(i, std::move(m));
    }
    for (int i = 0; i < count; ++i) {
        if (known[i] || is_help_word(words[i]) || is_version_word(words[i])) continue;
        std::string m = "unknown word \"" + std::string(words[i]) + "\" ignored";
        const std::string near = nearest_word(low[i]);
        const Option* meant = find_option(near.c_str());
        if (!near.empty()) m += " (did you mean " + near + "?)";
        // A mistyped option's value is ignored with it, not reported apart.
        if (meant && meant->type != 'l' && i + 1 < count && !known[i + 1]) {
            m += std::string("; so is its value ") + words[i + 1];
            known[i + 1] = 1;
        }
        found.emplace_back(i, m);
    }
    std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    for (auto& f : found) out.push_back(std::move(f.second));
    return out;
}

void report_words(int count, char* const* words, const Molecule& mol) {
    const std::vector<std::string> warnings = word_warnings(count, words, mol);
    bool help = false, version = false;
    for (int i = 0; i < count; ++i) {
        help = help || is_help_word(words[i]);
        version = version || is_version_word(words[i]);
    }
    if (warnings.empty() && !help && !version) return;
    std::fflush(stdout);
    for (const std::string& w : warnings) std::fprintf(stderr, "kalvex: %s\n", w.c_str());
    if (version) std::fprintf(stderr, "%s\n", common::version_line("kalvex").c_str());
    if (help) std::fputs(usage_text().c_str(), stderr);
    std::fflush(stderr);
}

}  // namespace kvx::main
