// Word matching, the option table, the request queue and line reading.
#include "main/input.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <string>
#include <vector>

namespace kvx::main {
namespace {

using Words = std::vector<std::string>;

// A stream holding exactly the given bytes.
struct Stream {
    std::FILE* f;
    explicit Stream(const std::string& text) : f(std::tmpfile()) {
        std::fwrite(text.data(), 1, text.size(), f);
        std::rewind(f);
    }
    ~Stream() { std::fclose(f); }
};

class InputTest : public ::testing::Test {
protected:
    void SetUp() override { reset_options(); }
    void TearDown() override { reset_options(); }

    // One line through both passes, as the driver runs them; the words read.
    Words run_line(std::FILE* in) {
        const int n = read_input_line(in, buffer, words);
        changed = parse_options(n, words);
        queue_requests(n, words, q);
        return {words, words + n};
    }
    char buffer[kLineBuffer];
    char* words[kMaxWords];
    int changed = 0;
    RequestQueue q;
};

TEST_F(InputTest, MixedLineSetsOptionsAndQueuesRequestsInOrder) {
    Stream s("-XP 40 -den -Base MyMol -moa 3-5 -thresh 1e-8 -chelp\n");
    run_line(s.f);
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(opt_i("-xp"), 40);
    EXPECT_STREQ(opt_c("-base"), "MyMol");  // value taken before it is lower-cased
    EXPECT_DOUBLE_EQ(opt_d("-thresh"), 1e-8);
    ASSERT_EQ(q.size(), 3u);
    EXPECT_EQ(q[0].kind, kReqDen);
    EXPECT_STREQ(q[1].name, "-moa");
    EXPECT_STREQ(q[1].arg1, "3-5");
    EXPECT_STREQ(q[1].arg2, "");  // a one-argument request copies one word only
    EXPECT_EQ(q[2].kind, kReqChelp);
}

TEST_F(InputTest, ValueWordsAreExaminedAgainAndMissingWordsLeaveThingsAlone) {
    Stream s("-base -den -xs -ys 2.5 -partd 1 -xp\nxp -de\n");
    run_line(s.f);
    EXPECT_STREQ(opt_c("-base"), "-den");
    EXPECT_DOUBLE_EQ(opt_d("-xs"), 0.0);  // the text "-ys" reads as 0
    EXPECT_DOUBLE_EQ(opt_d("-ys"), 2.5);
    EXPECT_EQ(opt_i("-xp"), 30);  // no value word: the default stays
    ASSERT_EQ(q.size(), 2u);
    EXPECT_STREQ(q[0].name, "-den");  // the value word still queues its request
    EXPECT_STREQ(q[1].arg1, "1");
    EXPECT_STREQ(q[1].arg2, "-xp");
    EXPECT_STREQ(q[1].arg3, "");
    run_line(s.f);  // words match whole, never by prefix
    EXPECT_EQ(changed, 0);
    EXPECT_EQ(q.size(), 2u);
}

// The fourteen request words, matched whole and in any case, each taking
// exactly its own number of following words as arguments.
TEST_F(InputTest, EveryRequestWordQueuesWithItsArgumentCount) {
    const struct {
        const char* word;
        int nargs;
    } words[] = {{"-end", 0}, {"-ep", 0},  {"-den", 0}, {"-dena", 0}, {"-denb", 0},  {"-spin", 0},  {"-moa", 1},
                 {"-mob", 1}, {"-loa", 1}, {"-lob", 1}, {"-nos", 1},  {"-partd", 3}, {"-parts", 3}, {"-chelp", 0}};
    for (const auto& w : words) {
        std::string upper = w.word;
        for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        Stream s(upper + " a b c\n");
        q.clear();
        run_line(s.f);
        ASSERT_EQ(q.size(), 1u) << w.word;
        EXPECT_STREQ(q[0].name, w.word);
        EXPECT_EQ(q[0].nargs, w.nargs) << w.word;
        EXPECT_STREQ(q[0].arg1, w.nargs >= 1 ? "a" : "") << w.word;
        EXPECT_STREQ(q[0].arg2, w.nargs >= 3 ? "b" : "") << w.word;
        EXPECT_STREQ(q[0].arg3, w.nargs >= 3 ? "c" : "") << w.word;
    }
}

TEST_F(InputTest, PointFlipsOnEveryOccurrence) {
    Stream s("-POINT\n-point\n-point -point -point -px 1\n");
    for (int expected : {1, 0, 1}) {
        run_line(s.f);
        EXPECT_EQ(opt_i("-point"), expected);
    }
    EXPECT_DOUBLE_EQ(opt_d("-px"), 1.0);
    EXPECT_TRUE(q.empty());
}

TEST_F(InputTest, LinesSplitAtBlanksAndEndOfInputAddsEnd) {
    const std::string x252(252, 'x');
    const struct {
        std::string text;
        std::vector<Words> lines;
    } cases[] = {
        {"  -den   -xp\t5  \n", {{"-den", "-xp\t5"}, {"-end"}}},  // only blanks split
        {"-xp 40\n-den", {{"-xp", "40"}, {"-den", "-end"}, {"-end"}}},
        {"", {{"-end"}}},
        {"-den\n", {{"-den"}, {"-end"}}},  // the ending newline needs one more read
        // At most 255 characters a read: "-den" is split across two reads.
        {x252 + " -den -spin\n", {{x252, "-d"}, {"en", "-spin"}, {"-end"}}},
    };
    for (const auto& c : cases) {
        Stream s(c.text);
        for (const Words& expected : c.lines) EXPECT_EQ(run_line(s.f), expected) << c.text;
    }
    EXPECT_EQ(q.back().kind, kReqEnd);
}

}  // namespace
}  // namespace kvx::main
