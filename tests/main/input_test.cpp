// Word matching, the option table, the request queue and line reading.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "main/input.h"

namespace kvx::main {
namespace {

// A stream holding exactly the given bytes.
struct Stream {
    std::FILE* f;
    explicit Stream(const std::string& text) : f(std::tmpfile()) {
        std::fwrite(text.data(), 1, text.size(), f);
        std::rewind(f);
    }
    ~Stream() { std::fclose(f); }
};

struct Line {
    char buffer[kLineBuffer];
    char* words[kMaxWords];
    int count = 0;
    std::vector<std::string> list() const { return {words, words + count}; }
};

class InputTest : public ::testing::Test {
protected:
    void SetUp() override { reset_options(); }
    void TearDown() override { reset_options(); }

    // Both passes over one line, as the driver runs them.
    int run_line(std::FILE* in, RequestQueue& q, Line& l) {
        l.count = read_input_line(in, l.buffer, l.words);
        int changed = parse_options(l.count, l.words);
        queue_requests(l.count, l.words, q);
        return changed;
    }
};

TEST_F(InputTest, MixedLineSetsOptionsAndQueuesRequestsInOrder) {
    Stream s("-XP 40 -den -Base MyMol -moa 3-5 -thresh 1e-8 -chelp\n");
    RequestQueue q;
    Line l;
    EXPECT_EQ(run_line(s.f, q, l), 1);
    EXPECT_EQ(opt_i("-xp"), 40);
    EXPECT_STREQ(opt_c("-base"), "MyMol");  // value taken before it is lower-cased
    EXPECT_DOUBLE_EQ(opt_d("-thresh"), 1e-8);
    ASSERT_EQ(q.size(), 3u);
    EXPECT_STREQ(q[0].name, "-den");
    EXPECT_EQ(q[0].kind, kReqDen);
    EXPECT_STREQ(q[1].name, "-moa");
    EXPECT_STREQ(q[1].arg1, "3-5");
    EXPECT_STREQ(q[1].arg2, "");  // one-argument request copies one word only
    EXPECT_EQ(q[2].kind, kReqChelp);
}

TEST_F(InputTest, ValueWordsAreExaminedAgain) {
    char w0[] = "-base", w1[] = "-den", w2[] = "-xs", w3[] = "-ys", w4[] = "2.5";
    char* words[] = {w0, w1, w2, w3, w4};
    EXPECT_EQ(parse_options(5, words), 1);
    RequestQueue q;
    queue_requests(5, words, q);
    EXPECT_STREQ(opt_c("-base"), "-den");
    ASSERT_EQ(q.size(), 1u);  // the value word still queues its request
    EXPECT_STREQ(q[0].name, "-den");
    EXPECT_DOUBLE_EQ(opt_d("-xs"), 0.0);  // atof("-ys")
    EXPECT_DOUBLE_EQ(opt_d("-ys"), 2.5);
}

TEST_F(InputTest, PointFlipsOnEveryOccurrence) {
    Stream s("-POINT\n-point\n-point -point -point -px 1\n");
    RequestQueue q;
    Line l;
    run_line(s.f, q, l);
    EXPECT_EQ(opt_i("-point"), 1);
    run_line(s.f, q, l);
    EXPECT_EQ(opt_i("-point"), 0);
    run_line(s.f, q, l);
    EXPECT_EQ(opt_i("-point"), 1);
    EXPECT_DOUBLE_EQ(opt_d("-px"), 1.0);
    EXPECT_TRUE(q.empty());
}

TEST_F(InputTest, MissingValueKeepsOldValueAndMissingArgumentsAreEmpty) {
    char w0[] = "-partd", w1[] = "1", w2[] = "-xp";
    char* words[] = {w0, w1, w2};
    EXPECT_EQ(parse_options(3, words), 1);
    EXPECT_EQ(opt_i("-xp"), 30);
    RequestQueue q;
    queue_requests(3, words, q);
    ASSERT_EQ(q.size(), 1u);
    EXPECT_STREQ(q[0].arg1, "1");
    EXPECT_STREQ(q[0].arg2, "-xp");
    EXPECT_STREQ(q[0].arg3, "");

    char v0[] = "xp", v1[] = "-de";
    char* none[] = {v0, v1};
    EXPECT_EQ(parse_options(2, none), 0);
    queue_requests(2, none, q);
    EXPECT_EQ(q.size(), 1u);
}

TEST_F(InputTest, OverlongTextIsCutToItsField) {
    std::string big(300, 'A');
    std::vector<char> b0(big.begin(), big.end()), b1(big.begin(), big.end());
    b0.push_back('\0');
    b1.push_back('\0');
    char opt[] = "-path", req[] = "-nos";
    char* words[] = {opt, b0.data(), req, b1.data()};
    parse_options(4, words);
    EXPECT_EQ(std::string(opt_c("-path")), big.substr(0, 263));
    RequestQueue q;
    queue_requests(4, words, q);
    ASSERT_EQ(q.size(), 1u);
    // The request pass sees the word after the option pass lower-cased it.
    EXPECT_EQ(std::string(q[0].arg1), std::string(256, 'a'));
}

TEST_F(InputTest, NumbersReadAsAtoiAndAtofDo) {
    char w0[] = "-xp", w1[] = "abc", w2[] = "-memmax", w3[] = "12.5xyz", w4[] = "-numt",
         w5[] = "99999999999";
    char* words[] = {w0, w1, w2, w3, w4, w5};
    parse_options(6, words);
    EXPECT_EQ(opt_i("-xp"), 0);
    EXPECT_DOUBLE_EQ(opt_d("-memmax"), 12.5);
    EXPECT_EQ(opt_i("-numt"), 2147483647);  // clamped, never undefined
}

TEST_F(InputTest, LinesSplitAtSingleBlanksOnly) {
    Stream s("  -den   -xp\t5  \n");
    Line l;
    l.count = read_input_line(s.f, l.buffer, l.words);
    EXPECT_EQ(l.list(), (std::vector<std::string>{"-den", "-xp\t5"}));
}

TEST_F(InputTest, LastLineWithoutNewlineRunsThenEnds) {
    Stream s("-xp 40\n-den");
    RequestQueue q;
    Line l;
    EXPECT_EQ(run_line(s.f, q, l), 1);
    EXPECT_TRUE(q.empty());
    run_line(s.f, q, l);
    EXPECT_EQ(l.list(), (std::vector<std::string>{"-den", "-end"}));
    ASSERT_EQ(q.size(), 2u);
    EXPECT_EQ(q[0].kind, kReqDen);
    EXPECT_EQ(q[1].kind, kReqEnd);
    // Already at end of input: the line is just -end.
    run_line(s.f, q, l);
    EXPECT_EQ(l.list(), (std::vector<std::string>{"-end"}));
}

TEST_F(InputTest, EmptyInputEndsAndEndingNewlineNeedsOneMoreRead) {
    {
        Stream s("");
        Line l;
        l.count = read_input_line(s.f, l.buffer, l.words);
        EXPECT_EQ(l.list(), (std::vector<std::string>{"-end"}));
    }
    Stream s("-den\n");
    Line l;
    l.count = read_input_line(s.f, l.buffer, l.words);
    EXPECT_EQ(l.list(), (std::vector<std::string>{"-den"}));
    l.count = read_input_line(s.f, l.buffer, l.words);
    EXPECT_EQ(l.list(), (std::vector<std::string>{"-end"}));
}

TEST_F(InputTest, LongLinesAreReadIn255CharacterPieces) {
    // The 255th character falls inside "-den": the word is split across reads.
    std::string line = std::string(252, 'x') + " -den -spin\n";
    Stream s(line);
    Line l;
    l.count = read_input_line(s.f, l.buffer, l.words);
    EXPECT_EQ(l.list(), (std::vector<std::string>{std::string(252, 'x'), "-d"}));
    l.count = read_input_line(s.f, l.buffer, l.words);
    EXPECT_EQ(l.list(), (std::vector<std::string>{"en", "-spin"}));
}

TEST_F(InputTest, ScratchDirectoryFromEnvironment) {
    const char* saved = std::getenv("KVX_SCRDIR");
    std::string keep = saved ? saved : "";
    struct Case {
        const char* value;
        const char* path;
    } cases[] = {{nullptr, "./"}, {"/tmp/scr", "/tmp/scr/"}, {"/tmp/scr/", "/tmp/scr/"}, {"", ""}};
    for (const Case& c : cases) {
        reset_options();
        if (c.value)
            setenv("KVX_SCRDIR", c.value, 1);
        else
            unsetenv("KVX_SCRDIR");
        set_scratch_directory();
        EXPECT_STREQ(opt_c("-path"), c.path) << (c.value ? c.value : "(unset)");
    }
    reset_options();
    setenv("KVX_SCRDIR", std::string(256, 'd').c_str(), 1);  // too long: ignored
    set_scratch_directory();
    EXPECT_STREQ(opt_c("-path"), "./");
    if (saved)
        setenv("KVX_SCRDIR", keep.c_str(), 1);
    else
        unsetenv("KVX_SCRDIR");
}

TEST_F(InputTest, ResetRestoresStoredDefaults) {
    char w0[] = "-fgrid", w1[] = "0", w2[] = "-path", w3[] = "/x", w4[] = "-point";
    char* words[] = {w0, w1, w2, w3, w4};
    parse_options(5, words);
    reset_options();
    EXPECT_EQ(opt_i("-fgrid"), 1);
    EXPECT_STREQ(opt_c("-path"), ".");
    EXPECT_EQ(opt_i("-point"), 0);
    EXPECT_EQ(find_option("-nosuch"), nullptr);
    EXPECT_EQ(lower_case(nullptr), nullptr);
}

}  // namespace
}  // namespace kvx::main
