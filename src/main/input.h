// Command-line and standard-input words: the option table, the request
// templates and queue, line reading and word matching, the scratch directory.
#pragma once

#include <cstdio>
#include <deque>

#include "moldata/property_words.h"

namespace kvx::main {

// One setting. type is a character code: 'i' integer, 'l' toggle (ival 0/1),
// 'd' double, 'c' text (cval, at most 263 characters).
struct Option {
    const char* name;
    int type;
    int ival;
    double dval;
    char cval[264];
};

constexpr int kOptionCount = 25;
constexpr int kOptionTextMax = 263;
constexpr int kRequestArgMax = 256;
constexpr int kLineMax = 255;    // characters taken from one input line
constexpr int kLineBuffer = 264; // room for a full line plus " -end"
constexpr int kMaxWords = 256;

// The global option table in lookup order, holding the stored defaults at load.
extern Option options[kOptionCount];

// Exact lookup of a lower-case option word ("-xs"); null when unknown.
Option* find_option(const char* name);
// Values of a known option; 0 / "" for an unknown name.
double opt_d(const char* name);
int opt_i(const char* name);
const char* opt_c(const char* name);

// Applies one value word by the option's type; a null text (no value word)
// keeps the old value, except for 'l', which flips regardless.
void set_option_value(Option& o, const char* text);

// Restores every option to its stored default.
void reset_options();

// KVX_SCRDIR (under 256 characters) replaces -path; a '/' is appended when
// the path does not end with one.
void set_scratch_directory();

// Request kinds are indices into the property word table (kReqEnd, ...).
using enum moldata::RequestKind;

struct Request {
    const char* name = nullptr;  // the request word ("-moa")
    int nargs = 0;
    int kind = 0;  // index into moldata::kPropertyWords (RequestKind)
    char arg1[kRequestArgMax + 1] = {};
    char arg2[kRequestArgMax + 1] = {};
    char arg3[kRequestArgMax + 1] = {};
};

using RequestQueue = std::deque<Request>;

// Appends a request of kind `kind` with up to its argument count of the
// given words (null leaves a slot empty; longer words are cut to 256).
void add_exeq(RequestQueue& q, int kind, const char* a1, const char* a2, const char* a3);

// Lower-cases in place; null passes through.
char* lower_case(char* text);

// Option pass over words[0..count-1] (each word lower-cased in place, the
// value word taken as it stands); 1 when any option word matched.
int parse_options(int count, char** words);

// Request pass: queues one request per request word, in word order.
void queue_requests(int count, char** words, RequestQueue& q);

// Reads one line (at most 255 characters) into buffer (>= kLineBuffer bytes)
// and splits it at single blanks into words (>= kMaxWords pointers into
// buffer). At end of input, before or during the read, the line carries
// " -end". Returns the word count.
int read_input_line(std::FILE* in, char* buffer, char** words);

}  // namespace kvx::main
