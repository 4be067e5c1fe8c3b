// Basis set readers: the ".basis" file and the "$atoms"/"$basis" sections of
// the one-file ".kvm" file, the shell maker with its normalisation, the shell
// sort and the function numbering (module Moldata).
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "moldata/job_error.h"
#include "moldata/molecule.h"

namespace kvx::moldata {

// Largest basis accepted by either reader; bounds every nbasis-sized
// allocation that follows (orbitals, densities, overlap).
inline constexpr int kMaxBasisFunctions = 20000;

// Memory the molecule builder needs for a basis of nbasis functions made of
// these shells: the overlap and density matrices and the overlap's largest
// shell-pair block.
std::uint64_t basis_matrix_bytes(const std::vector<Shell>& shells, long long nbasis, bool restricted);

// False, with the reason in why, when that is more than `usable` bytes.
bool basis_fits_memory(const std::vector<Shell>& shells, long long nbasis, bool restricted, std::uint64_t usable,
                       std::string& why);

// Type code of a shell label ("s" 1 .. "i" 13); 0 when the word is no label.
int shell_type_of_label(std::string_view label);

enum class BasisToken { Word, LineEnd, End };

// Token reader of the basis file: skips blanks and tabs; a newline met while
// skipping is reported as LineEnd; otherwise the word up to the next
// whitespace is returned and a newline ending it is left for the next call.
// End of file while skipping or inside a word is End, which the readers
// refuse with kBasisFileEnded.
BasisToken next_basis_token(std::FILE* f, std::string& word);
inline constexpr const char* kBasisFileEnded = "1 End of file reached in Basis file";

// Normalises the coefficients of one shell's basdat (nprim rows of
// row_length doubles) in place.
//   S = sum_ik c_i c_k K (a_i a_k)^(E/4) (a_i + a_k)^(-E/2),
//   c_i <- c_i F a_i^(l/2) / sqrt(S)  per contraction column;
// sp shells: s and p columns separately, the p one with 2 sqrt(a_i).
void normalise_shell_data(int type, int nprim, int ngc, std::vector<double>& basdat);

// Shell maker: turns one basis entry (type, nprim, number list) into one
// shell per atom whose label equals basis_name, all sharing one normalised
// basdat and prefact; nfirst from the running counter, which grows by
// size * ngc per shell. An empty number list makes nothing. False with a
// reason in why when the entry cannot make a usable shell; false with error
// set when memory runs out.
bool make_shell(int type, int nprim, std::vector<double> data, std::string_view basis_name,
                const std::vector<Atom>& atoms, const std::vector<std::string>& labels, std::vector<Shell>& shells,
                long long& counter, std::string& why, JobError& error);

// Primary layout: the shells of mol.atoms from the ".basis" file at path.
// Needs atoms and mol.nshell > 0; on any failure mol.shells stays empty.
// A file that makes more than $nshell shells, or whose shells do not give
// $nbasis functions, or a shell with more contractions than primitives, or a
// basis whose matrices would not fit in the memory this process can use
// (checked before any is allocated), is rejected with one message. The job is refused when
// the file ends inside the section, an atom's basis label is longer than 8
// characters, or memory runs out.
JobError read_basis(Molecule& mol, const std::string& path);

// One-file layout: shells from the "$atoms" and "$basis" sections of the
// ".kvm" file; sets nshell, nbasis and nprim from the shells and numbers the
// functions atom by atom. The job is refused when memory runs out.
JobError read_onefile_basis(Molecule& mol, const std::string& path);

// Order: type ascending, then nprim descending, then atomic number
// descending, equal shells keeping their order (the outcome of repeated
// adjacent swaps); then nfirst renumbered in that order from 1.
void sort_shells(Molecule& mol);

// Debugging dump of every shell on standard output.
void dump_shells(const Molecule& mol);

}  // namespace kvx::moldata
