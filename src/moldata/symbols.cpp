#include "moldata/symbols.h"

#include <cctype>
#include <cstring>

namespace kvx::moldata {

const char* const kElementSymbols[kNumSymbols] = {
    "xx", "h",  "he", "li", "be", "b",  "c",  "n",  "o",  "f",  "ne", "na", "mg", "al", "si", "p",  "s",  "cl",
    "ar", "k",  "ca", "sc", "ti", "v",  "cr", "mn", "fe", "co", "ni", "cu", "zn", "ga", "ge", "as", "se", "br",
    "kr", "rb", "sr", "y",  "zr", "nb", "mo", "tc", "ru", "rh", "pd", "ag", "cd", "in", "sn", "sb", "te", "i",
    "xe", "cs", "ba", "la", "ce", "pr", "nd", "pm", "sm", "eu", "gd", "tb", "dy", "ho", "er", "tm", "yb", "lu",
    "hf", "ta", "w",  "re", "os", "ir", "pt", "au", "hg", "tl", "pb", "bi", "po", "at", "rn", "fr", "ra", "ac",
    "th", "pa", "u",  "np", "pu", "am", "cm", "bk", "cf", "es", "fm", "md", "no", "lr", "rf", "ha"};

int atomic_number(std::string_view symbol) {
    std::string copy(symbol.substr(0, 3));
    if (copy.empty()) return 0;
    copy[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(copy[0])));
    if (copy.size() > 1) {
        if (!std::isalpha(static_cast<unsigned char>(copy[1])))
            copy.resize(1);
        else
            copy[1] = static_cast<char>(std::tolower(static_cast<unsigned char>(copy[1])));
    }
    int z = 0;
    for (int i = 1; i < kNumSymbols; ++i) {
        if (copy == kElementSymbols[i]) {
            z = i;
            break;
        }
    }
    // Dubnium under its current symbol maps onto the table's "ha" entry.
    if (copy == "db") z = 105;
    return z;
}

std::string element_symbol(int z, int case_switch) {
    std::string s = kElementSymbols[(z >= 1 && z < kNumSymbols) ? z : 0];
    s[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(s[0])));
    if (case_switch < 0) s[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(s[0])));
    if (case_switch > 0 && s.size() > 1) s[1] = static_cast<char>(std::toupper(static_cast<unsigned char>(s[1])));
    return s;
}

std::string basis_label(std::string_view symbol) {
    std::string out;
    for (char c : symbol)
        if (!std::isdigit(static_cast<unsigned char>(c))) out.push_back(c);
    return out;
}

}  // namespace kvx::moldata
