// Fuzz target: standard-input lines of option and request words, read and
// matched line by line as the driver does until the run would end.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "main/input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace kvx::main;
    static const bool quiet = std::freopen("/dev/null", "w", stdout) != nullptr;
    (void)quiet;
    std::string text(reinterpret_cast<const char*>(data), size);
    std::FILE* in = fmemopen(text.data(), text.size() ? text.size() : 1, "r");
    if (!in) return 0;
    if (text.empty()) std::fgetc(in);  // an empty input: at its end at once
    reset_options();
    std::vector<char> line(kLineBuffer, 0);
    std::vector<char*> words(kMaxWords, nullptr);
    RequestQueue queue;
    // Each line is at least one character of the input, and the line after
    // the end of input ends the run.
    for (std::size_t lines = 0; lines <= size + 1; ++lines) {
        const int nw = read_input_line(in, line.data(), words.data());
        parse_options(nw, words.data());
        queue_requests(nw, words.data(), queue);
        bool end = false;
        for (const Request& r : queue) end = end || r.kind == kReqEnd;
        queue.clear();
        if (end) break;
    }
    std::fclose(in);
    return 0;
}
