#include "main/input.h"

#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "common/fatal.h"

namespace kvx::main {

// The option table in lookup order with its stored defaults; -xs .. -zl are
// replaced by the molecule's box at start-up.
#define KVX_OPTION_DEFAULTS \
    {"-xs", 'd', 0, 0.0, ""},      {"-ys", 'd', 0, 0.0, ""}, \
    {"-zs", 'd', 0, 0.0, ""},      {"-xl", 'd', 0, 0.0, ""}, \
    {"-yl", 'd', 0, 0.0, ""},      {"-zl", 'd', 0, 0.0, ""}, \
    {"-xp", 'i', 30, 0.0, ""},     {"-yp", 'i', 30, 0.0, ""}, \
    {"-zp", 'i', 30, 0.0, ""},     {"-memmax", 'd', 0, 400.0, ""}, \
    {"-thresh", 'd', 0, 1e-06, ""}, {"-moacc", 'd', 0, 1e-06, ""}, \
    {"-numt", 'i', -4, 0.0, ""},   {"-base", 'c', 0, 0.0, ""}, \
    {"-path", 'c', 0, 0.0, "."},   {"-banner", 'i', 0, 0.0, ""}, \
    {"-force", 'i', 0, 0.0, ""},   {"-fgrid", 'i', 1, 0.0, ""}, \
    {"-xr", 'd', 0, 0.5, ""},      {"-yr", 'd', 0, 0.5, ""}, \
    {"-zr", 'd', 0, 0.5, ""},      {"-point", 'l', 0, 0.0, ""}, \
    {"-px", 'd', 0, 0.0, ""},      {"-py", 'd', 0, 0.0, ""}, \
    {"-pz", 'd', 0, 0.0, ""},

namespace {

const Option kDefaults[kOptionCount] = {KVX_OPTION_DEFAULTS};

void copy_cut(char* dst, const char* src, std::size_t max) {
    std::size_t n = std::strlen(src);
    if (n > max) n = max;
    std::memcpy(dst, src, n);
    dst[n] = '\0';
}

// atoi without the undefined behaviour of an out-of-range value: clamps.
int to_int(const char* text) {
    long v = std::strtol(text, nullptr, 10);
    if (v > INT_MAX) return INT_MAX;
    if (v < INT_MIN) return INT_MIN;
    return static_cast<int>(v);
}

}  // namespace

Option options[kOptionCount] = {KVX_OPTION_DEFAULTS};

Option* find_option(const char* name) {
    if (!name) return nullptr;
    for (Option& o : options)
        if (std::strcmp(o.name, name) == 0) return &o;
    return nullptr;
}

double opt_d(const char* name) {
    const Option* o = find_option(name);
    return o ? o->dval : 0.0;
}

int opt_i(const char* name) {
    const Option* o = find_option(name);
    return o ? o->ival : 0;
}

const char* opt_c(const char* name) {
    const Option* o = find_option(name);
    return o ? o->cval : "";
}

void set_option_value(Option& o, const char* text) {
    if (o.type == 'l') {
        o.ival = o.ival ? 0 : 1;
        return;
    }
    if (!text) return;
    switch (o.type) {
        case 'i': o.ival = to_int(text); break;
        case 'd': o.dval = std::atof(text); break;
        case 'c': copy_cut(o.cval, text, kOptionTextMax); break;
        default: break;
    }
}

void reset_options() {
    for (int i = 0; i < kOptionCount; ++i) options[i] = kDefaults[i];
}

void set_scratch_directory() {
    Option* path = find_option("-path");
    const char* env = std::getenv("KVX_SCRDIR");
    if (env && std::strlen(env) < 256) copy_cut(path->cval, env, kOptionTextMax);
    // An empty variable leaves an empty directory: names are then relative to
    // the working directory, never to "/".
    const std::size_t n = std::strlen(path->cval);
    if (n > 0 && path->cval[n - 1] != '/' && n < static_cast<std::size_t>(kOptionTextMax)) {
        path->cval[n] = '/';
        path->cval[n + 1] = '\0';
    }
}

void add_exeq(RequestQueue& q, int kind, const char* a1, const char* a2, const char* a3) {
    if (kind < 0 || kind >= moldata::kPropertyWordCount) return;
    const moldata::PropertyWord& t = moldata::kPropertyWords[kind];
    common::alloc_or_die("Input add_exeq: cannot allocate newptr", [&] {
        Request& r = q.emplace_back();
        r.name = t.request;
        r.nargs = t.nargs;
        r.kind = kind;
        const char* args[3] = {a1, a2, a3};
        char* slots[3] = {r.arg1, r.arg2, r.arg3};
        for (int i = 0; i < t.nargs && i < 3; ++i)
            if (args[i]) copy_cut(slots[i], args[i], kRequestArgMax);
    });
}

char* lower_case(char* text) {
    if (!text) return nullptr;
    for (char* p = text; *p; ++p) *p = static_cast<char>(std::tolower(static_cast<unsigned char>(*p)));
    return text;
}

int parse_options(int count, char** words) {
    int matched = 0;
    for (int i = 0; i < count; ++i) {
        lower_case(words[i]);
        Option* o = find_option(words[i]);
        if (!o) continue;
        // The value word is used as it stands (not yet lower-cased), and is
        // examined itself as a possible option word on the next step.
        set_option_value(*o, i + 1 < count ? words[i + 1] : nullptr);
        matched = 1;
    }
    return matched;
}

void queue_requests(int count, char** words, RequestQueue& q) {
    for (int i = 0; i < count; ++i) {
        lower_case(words[i]);
        if (!words[i]) continue;
        for (int t = 0; t < moldata::kPropertyWordCount; ++t) {
            if (std::strcmp(moldata::kPropertyWords[t].request, words[i]) != 0) continue;
            add_exeq(q, t, i + 1 < count ? words[i + 1] : nullptr,
                     i + 2 < count ? words[i + 2] : nullptr,
                     i + 3 < count ? words[i + 3] : nullptr);
            break;
        }
    }
}

int read_input_line(std::FILE* in, char* buffer, char** words) {
    static const char kEnd[] = " -end";
    buffer[0] = '\0';
    if (std::feof(in)) {
        std::strcpy(buffer, kEnd);
    } else {
        if (!std::fgets(buffer, kLineMax + 1, in)) buffer[0] = '\0';
        char* nl = std::strchr(buffer, '\n');
        if (nl) *nl = ' ';
        // A read error ends the run like the end of input, rather than
        // returning empty lines for ever.
        if (std::feof(in) || std::ferror(in)) std::strcat(buffer, kEnd);
    }

    int count = 0;
    char* p = buffer;
    while (*p && count < kMaxWords) {
        if (*p == ' ') {
            ++p;
            continue;
        }
        words[count++] = p;
        while (*p && *p != ' ') ++p;
        if (*p) *p++ = '\0';
    }
    return count;
}

}  // namespace kvx::main
