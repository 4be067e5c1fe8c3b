// Input streams that end: common/input_file.h.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "common/input_file.h"
#include "common/temp_dir.h"

namespace fs = std::filesystem;
using kvx::test::TempDir;

namespace {

std::string read_all(std::FILE* f) {
    std::string s;
    for (int c; (c = std::getc(f)) != EOF;) s.push_back(static_cast<char>(c));
    return s;
}

}  // namespace

TEST(InputFile, OnlyRegularFilesOpenAndNoneBlocks) {
    TempDir dir;
    ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
    fs::create_symlink("/dev/zero", dir.path() / "zero");
    fs::create_directory(dir.path() / "folder");
    const struct {
        const char* name;
        const char* error;
    } cases[] = {{"fifo", "a FIFO, not a regular file"},
                 {"zero", "a character device, not a regular file"},
                 {"folder", "a folder, not a regular file"},
                 {"absent", "No such file or directory"}};
    for (const auto& c : cases) {
        std::string error;
        EXPECT_EQ(kvx::common::open_bounded(dir.file(c.name), kvx::common::kNoLimit, &error), nullptr) << c.name;
        EXPECT_EQ(error, c.error);
    }
}

// The stream ends where the file ended when it was opened, or at the bound;
// seeking stays inside that window.
TEST(InputFile, StreamsEndAtTheSizeWhenOpenedOrTheBound) {
    TempDir dir;
    dir.write("f", "0123456789");
    bool cut = true;
    std::FILE* f = kvx::common::open_bounded(dir.file("f"), kvx::common::kNoLimit, nullptr, &cut);
    ASSERT_NE(f, nullptr);
    EXPECT_FALSE(cut);
    std::ofstream(dir.file("f"), std::ios::app) << "grown";  // a writer appending meanwhile
    EXPECT_EQ(read_all(f), "0123456789");
    std::rewind(f);
    EXPECT_EQ(std::getc(f), '0');
    ASSERT_EQ(std::fseek(f, -3, SEEK_END), 0);
    EXPECT_EQ(std::ftell(f), 7);
    EXPECT_EQ(read_all(f), "789");
    std::fclose(f);

    f = kvx::common::open_bounded(dir.file("f"), 4, nullptr, &cut);
    ASSERT_NE(f, nullptr);
    EXPECT_TRUE(cut);
    EXPECT_EQ(read_all(f), "0123");
    ASSERT_EQ(std::fseek(f, 0, SEEK_END), 0);
    EXPECT_EQ(std::ftell(f), 4);
    std::fclose(f);
}
