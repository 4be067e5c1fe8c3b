// Small text and file helpers shared by the job-file readers.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

namespace kvx::moldata {

struct FileCloser {
    void operator()(std::FILE* f) const {
        if (f) std::fclose(f);
    }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// Longest text job files read; the rest of a longer one is not read (with a
// message), so that the keyword scans, each through the whole file, end
// within seconds. Counts, atoms, basis and symmetry files take 64 MiB (some
// 800,000 atoms); the one-file layout, whose orbital sections grow with the
// square of the basis, 1 GiB.
inline constexpr std::uint64_t kTextFileLimit = std::uint64_t{64} << 20;
inline constexpr std::uint64_t kOneFileLimit = std::uint64_t{1} << 30;

// The job file as a stream that ends where the file ended when opened, or
// for a text file at `limit`. Null when the file cannot be opened or is not
// a regular file: an absent file, a FIFO, a device or a folder count as
// absent data.
File open_read(const std::string& path, bool binary = false, std::uint64_t limit = kTextFileLimit);

// Bytes from the current position to the end of the file; 0 when unknown.
long remaining_bytes(std::FILE* f);

// One line as fgets with a buffer of `limit` bytes: at most limit - 1
// characters, up to and including the newline. False at end of file when
// nothing was read.
bool read_line(std::FILE* f, std::string& line, int limit);

// Reads lines (read_line with `limit`) until one contains `key`; false when
// the file ends first. The matching line is left in `line`.
bool find_line(std::FILE* f, std::string& line, const char* key, int limit);

// Longest token kept by scan_token; the rest of a longer token is consumed.
inline constexpr std::size_t kMaxToken = 255;

// Plain whitespace-separated token (line ends are whitespace). False at end
// of file.
bool scan_token(std::FILE* f, std::string& tok);

// What a token read where an integer belongs gives: the value, no number at
// all ("abc", "$end"), a number that is no integer ("2.5", "1e10", "5x"), or
// an integer beyond 32 bits.
enum class IntToken { Value, NotNumber, NotInteger, OutOfRange };
IntToken parse_int_token(const std::string& tok, int& value);

// Decimal integer after optional whitespace (line ends included), as "%d":
// the character after the digits is left unread. False at end of file, when
// no digits follow, or when the value does not fit an int.
bool scan_int(std::FILE* f, int& value);

}  // namespace kvx::moldata
