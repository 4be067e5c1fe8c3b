// What kalvex says on standard error about a mistyped or incomplete line,
// word by word, on the real water (closed shell, 19 orbitals) and OH radical
// (UHF, 17 alpha and 17 beta orbitals) jobs; the usage text; and end to end,
// that standard output stays what it was.
#include "main/word_check.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "common/command.h"
#include "common/temp_dir.h"
#include "main/input.h"
#include "main/usage.h"
#include "moldata/property_words.h"
#include "moldata/reader.h"

namespace kvx::main {
namespace {

std::unique_ptr<moldata::Molecule> job(const char* name) {
    return moldata::build_molecule(std::string(KVX_TEST_DATA) + "/" + name + "/" + name).molecule;
}

// The line split at blanks, as the input reader splits it.
std::vector<std::string> warnings_of(const moldata::Molecule& mol, const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string w; in >> w;) words.push_back(w);
    std::vector<char*> ptrs;
    for (auto& w : words) ptrs.push_back(w.data());
    return word_warnings(static_cast<int>(ptrs.size()), ptrs.data(), mol);
}

struct Case {
    const char* line;
    std::vector<std::string> says;
};

void expect_warnings(const moldata::Molecule& mol, const std::vector<Case>& cases) {
    for (const Case& c : cases) EXPECT_EQ(warnings_of(mol, c.line), c.says) << c.line;
}

class WordWarnings : public ::testing::Test {
protected:
    void SetUp() override {
        reset_options();
        water = job("water");
        ohrad = job("ohrad");
        ASSERT_TRUE(water && water->alpha && water->alpha->count == 19);
        ASSERT_TRUE(ohrad && ohrad->beta && ohrad->beta->count == 17);
    }
    std::unique_ptr<moldata::Molecule> water, ohrad;
};

TEST_F(WordWarnings, CorrectLinesSayNothing) {
    expect_warnings(*water,
                    {
                        {"-den -dena -spin -ep -chelp -end", {}},
                        {"-xp 40 -YP 40 -zp 40 -moacc 1e-8 -thresh .5e-9 -xs -6.5 -base MyRun -point -px 1 -DEN", {}},
                        {"-moa 1 -moa 19 -MOB 1 -loa 3 -nos 2", {}},  // sets the job lacks: their own message on stdout
                        {"-partd 1 1-3,5 1-2 -parts 1 2- -4 -partd 1 -3,4- x",
                         {}},  // the closed-shell job has no beta list to read
                    });
}

TEST_F(WordWarnings, UnknownWordsNameTheNearestKnownOne) {
    expect_warnings(
        *water,
        {
            {"-dne", {"unknown word \"-dne\" ignored (did you mean -den?)"}},
            {"den -xp 40 50", {"unknown word \"den\" ignored (did you mean -den?)", "unknown word \"50\" ignored"}},
            {"-thrsh 1e-7 -den", {"unknown word \"-thrsh\" ignored (did you mean -thresh?); so is its value 1e-7"}},
            {"--hlep", {"unknown word \"--hlep\" ignored (did you mean --help?)"}},
            {"-xyzzy -den", {"unknown word \"-xyzzy\" ignored"}},
            {"-h --help --version -den", {}},  // answered with the usage and the version, not warned about
        });
}

TEST_F(WordWarnings, OptionValuesThatAreNoNumbers) {
    expect_warnings(*water, {
                                {"-xp abc -den", {"-xp abc: not a whole number; read as 0"}},
                                {"-yp 1.5", {"-yp 1.5: not a whole number; read as 1"}},
                                {"-moacc 1e-8x", {"-moacc 1e-8x: not a number; read as 1e-08"}},
                                {"-xs nan", {"-xs nan: not a number; read as nan"}},
                                {"-den -zp", {"-zp without a value: it keeps 30"}},
                                {"-base", {"-base without a value: it keeps \"\""}},
                                {"-xp -den", {"-xp -den: not a whole number; read as 0"}},
                            });
}

TEST_F(WordWarnings, OrbitalRequestsTakeOneOrbitalOfTheSet) {
    expect_warnings(
        *water,
        {
            {"-moa 1-3",
             {"-moa 1-3: one orbital per request: only orbital 1 is computed (-moa 1 -moa 2 -moa 3; -partd gives the "
              "density of several)"}},
            {"-moa 2,7",
             {"-moa 2,7: one orbital per request: only orbital 2 is computed (one -moa per orbital; -partd gives the "
              "density of several)"}},
            {"-moa 99", {"-moa 99: the job has 19 alpha orbitals, the last is 19; nothing is computed"}},
            {"-moa 0", {"-moa 0: orbitals are numbered from 1, so nothing is computed"}},
            {"-moa", {"-moa without an orbital number: nothing is computed (-moa 5 computes orbital 5)"}},
            {"-moa -den",
             {"-moa -den: \"-den\" is not an orbital number, so nothing is computed (-moa 5 computes orbital 5)"}},
            {"-moa homo",
             {"-moa homo: \"homo\" is not an orbital number, so nothing is computed (-moa 5 computes "
              "orbital 5)"}},
        });
    expect_warnings(*ohrad,
                    {
                        {"-mob 18", {"-mob 18: the job has 17 beta orbitals, the last is 17; nothing is computed"}},
                        {"-mob 17 -moa 17", {}},
                    });
}

TEST_F(WordWarnings, PartialDensitiesNeedATypeAndTwoLists) {
    expect_warnings(
        *water,
        {
            {"-partd",
             {"-partd: needs three words, the orbital type and the alpha and beta orbital lists (-partd 1 1-3 "
              "1-2); nothing is computed"}},
            {"-partd 1 1-3",
             {"-partd 1 1-3: needs three words, the orbital type and the alpha and beta orbital lists (-partd 1 1-3 "
              "1-2); "
              "a list not given selects the occupied orbitals"}},
            {"-partd 7 1 1",
             {"-partd 7 1 1: the orbital type is 1 (canonical), 2 (localized) or 0 (natural orbitals), so nothing is "
              "computed"}},
            {"-parts 0 1 1",
             {"-parts 0 1 1: the orbital type is 1 (canonical) or 2 (localized), so nothing is computed"}},
            {"-partd 1x 1 1", {"-partd 1x 1 1: \"1x\" is read as orbital type 1"}},
            {"-partd 1 9-22,x,0 1",
             {"-partd 1 9-22,x,0 1: the job has 19 alpha orbitals; 20-22 in the alpha list lie beyond the last (19) "
              "and "
              "are left out",
              "-partd 1 9-22,x,0 1: \"x\" in the alpha list is not an orbital number or range (a, a-b, a-, -b)",
              "-partd 1 9-22,x,0 1: \"0\" in the alpha list selects no orbital (numbers start at 1)"}},
        });
    expect_warnings(
        *ohrad,
        {
            {"-parts 1 1-5 30",
             {"-parts 1 1-5 30: the job has 17 beta orbitals; 30 in the beta list lie beyond the last "
              "(17) and are left out"}},
            {"-parts 1 5-3 2-", {"-parts 1 5-3 2-: \"5-3\" in the alpha list selects no orbital (numbers start at 1)"}},
        });
}

TEST(Usage, ListsEveryRequestAndOption) {
    const std::string text = usage_text();
    auto has_word = [&](const std::string& w) {
        for (std::size_t p = text.find(w); p != std::string::npos; p = text.find(w, p + 1)) {
            const char after = p + w.size() < text.size() ? text[p + w.size()] : ' ';
            if ((p == 0 || text[p - 1] == ' ') && (after == ' ' || after == '\n')) return true;
        }
        return false;
    };
    for (const moldata::PropertyWord& p : moldata::kPropertyWords) EXPECT_TRUE(has_word(p.request)) << p.request;
    for (const Option& o : options) EXPECT_TRUE(has_word(o.name)) << o.name;
    EXPECT_EQ(text.rfind("Usage: kalvex JOBNAME", 0), 0u);
    for (const char* w : {"-h", "--help", "-HELP"}) EXPECT_TRUE(is_help_word(w)) << w;
    for (const char* w : {"-help2", "help", "-hh"}) EXPECT_FALSE(is_help_word(w)) << w;
    EXPECT_TRUE(is_version_word("--version"));
    EXPECT_FALSE(is_version_word("-version"));
}

// End to end: what kalvex prints on standard output is what it printed
// before these warnings existed; the golden outputs hold the same runs.
class KalvexWords : public ::testing::Test {
protected:
    test::TempDir tmp;
    void SetUp() override {
        tmp.copy_job(KVX_TEST_DATA "/water/water", "water", {".control", ".coord", ".basis", ".mos"});
    }
    test::SplitResult kalvex(const std::string& args, const std::string& input = "") {
        tmp.write("stdin.txt", input);
        return test::run_split("cd '" + tmp.path().string() + "' && '" KVX_BINARY "' " + args + " <stdin.txt");
    }
};

// Standard output without its process id line.
std::string without_pid(const std::string& out) {
    const std::size_t end = out.find('\n');
    return out.rfind("Process ID is ", 0) == 0 && end != std::string::npos ? out.substr(end + 1) : out;
}

TEST_F(KalvexWords, BareCommandAndHelpWordsKeepStandardOutput) {
    const test::SplitResult bare = kalvex("");
    EXPECT_EQ(bare.out, "Usage: kalvex jobname\n");
    EXPECT_EQ(bare.err, usage_text());
    EXPECT_EQ(bare.status, 0);
    for (const char* w : {"-h", "--help"}) {
        const test::SplitResult r = kalvex(w);
        EXPECT_EQ(r.out, std::string("Cannot read molecular data for ") + w + "\n");
        EXPECT_EQ(r.err, usage_text());
        EXPECT_EQ(r.status, 0);
    }
    const test::SplitResult v = kalvex("--version");
    EXPECT_EQ(v.out, "Cannot read molecular data for --version\n");
    EXPECT_EQ(v.err, "kalvex (Kalvex version 1.2-18-win)\n");
    const test::SplitResult late = kalvex("water -xp 3 -yp 3 -zp 3 --help -den");
    EXPECT_EQ(late.err, usage_text());
    EXPECT_NE(late.out.find("Property file:"), std::string::npos);
}

TEST_F(KalvexWords, MistakesWarnOnStandardErrorAndComputeWhatTheyAlwaysDid) {
    struct Pair {
        std::string mistaken, plain, input;
        std::string says;
    };
    const std::vector<Pair> pairs = {
        {"-xp 4 -yp 4 -zp 4 -dne -den", "-xp 4 -yp 4 -zp 4 -den", "",
         "kalvex: unknown word \"-dne\" ignored (did you mean -den?)\n"},
        {"-xp 4 -yp 4 -zp 4 -moa 1-3", "-xp 4 -yp 4 -zp 4 -moa 1", "",
         "kalvex: -moa 1-3: one orbital per request: only orbital 1 is computed (-moa 1 -moa 2 -moa 3; -partd gives "
         "the density of several)\n"},
        {"-xp 4 -yp 4 -zp 4 -moa 99 -den", "-xp 4 -yp 4 -zp 4 -moa 99 -den", "",
         "kalvex: -moa 99: the job has 19 alpha orbitals, the last is 19; nothing is computed\n"},
        {"-xp 4 -yp 4 -zp 4.0 -ep", "-xp 4 -yp 4 -zp 4 -ep", "", "kalvex: -zp 4.0: not a whole number; read as 4\n"},
        {"", "", "-xp 4 -yp 4 -zp 4 -thrsh 1e-9 -den\n-moa\n",
         "kalvex: unknown word \"-thrsh\" ignored (did you mean -thresh?); so is its value 1e-9\n"
         "kalvex: -moa without an orbital number: nothing is computed (-moa 5 computes orbital 5)\n"},
    };
    for (const Pair& p : pairs) {
        std::string plain_input = p.input;
        if (const auto at = plain_input.find("-thrsh 1e-9 "); at != std::string::npos) plain_input.erase(at, 12);
        const test::SplitResult a = kalvex("water -force 1 " + p.mistaken, p.input);
        const test::SplitResult b = kalvex("water -force 1 " + p.plain, plain_input);
        EXPECT_EQ(a.err, p.says) << p.mistaken << p.input;
        EXPECT_EQ(without_pid(a.out), without_pid(b.out)) << p.mistaken << p.input;
        EXPECT_EQ(a.status, 0);
    }
}

}  // namespace
}  // namespace kvx::main
