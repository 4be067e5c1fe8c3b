// Atomic symbols: atomic number lookup, reverse lookup, basis labels.
#pragma once

#include <string>
#include <string_view>

namespace kvx::moldata {

// 106 lower-case entries: "xx", "h" .. "lr" (1..103), "rf", "ha".
inline constexpr int kNumSymbols = 106;
extern const char* const kElementSymbols[kNumSymbols];

// Atomic number of a label ("O", "H1", "cl", "Db"); 0 when nothing matches.
// Only the first two letters count; a third character (as in "He1") makes
// the label match nothing.
int atomic_number(std::string_view symbol);

// Capitalised symbol of an atomic number ("Xx" outside 1..105). A negative
// case switch lowers the first letter, a positive one raises the second.
std::string element_symbol(int z, int case_switch = 0);

// Basis-matching form of an atom label: every decimal digit removed ("C12"
// matches "C"). The basis reader refuses one longer than 8 characters.
std::string basis_label(std::string_view symbol);

}  // namespace kvx::moldata
