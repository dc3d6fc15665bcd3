#include "plc_driver.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

class UtilFiles : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "plc_util_XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
    }
    void TearDown() override {
        std::error_code ignored;
        fs::remove_all(dir_, ignored);
    }

    std::string path(const char *name) const { return (dir_ / name).string(); }

    static std::string contents(const std::string &file) {
        std::ifstream in(file, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    fs::path dir_;
};

TEST(BitLengths, RoundUp) {
    EXPECT_EQ(bit2byte_len(0), 0u);
    EXPECT_EQ(bit2byte_len(1), 1u);
    EXPECT_EQ(bit2byte_len(8), 1u);
    EXPECT_EQ(bit2byte_len(9), 2u);
    EXPECT_EQ(bit2byte_len(0xFFFFFFFFu), 0x20000000u);
    EXPECT_EQ(bit2word_len(16), 1u);
    EXPECT_EQ(bit2word_len(17), 2u);
    EXPECT_EQ(bit2word_len(0xFFFFFFFFu), 0x10000000u);
}

TEST_F(UtilFiles, MissingFileReadsEmptyAndIsLeftBehind) {
    const std::string file = path("missing.bin");
    const mode_t old_mask = ::umask(0);
    char buffer[8] = {};
    const int got = Read_File(file.c_str(), buffer, 0, sizeof buffer);
    struct stat info {};
    const int stat_result = ::stat(file.c_str(), &info);
    ::umask(old_mask);

    EXPECT_EQ(got, 0);
    ASSERT_EQ(stat_result, 0);
    EXPECT_EQ(info.st_size, 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);
}

TEST_F(UtilFiles, WriteAndReadAtAnOffset) {
    const std::string file = path("data.bin");
    std::string original;
    for (int i = 0; i < 100; ++i) original.push_back(static_cast<char>(i));
    std::ofstream(file, std::ios::binary) << original;

    const uint8_t patch[] = {0xAA, 0xBB, 0xCC, 0xDD};
    EXPECT_EQ(Write_File(file.c_str(), patch, 10, sizeof patch), 4);
    std::string expected = original;
    expected.replace(10, 4, "\xAA\xBB\xCC\xDD");
    EXPECT_EQ(contents(file), expected) << "only bytes 10..13 may change";

    uint8_t back[4] = {};
    EXPECT_EQ(Read_File(file.c_str(), back, 10, sizeof back), 4);
    EXPECT_EQ(std::vector<uint8_t>(back, back + 4), std::vector<uint8_t>(patch, patch + 4));

    // A read that runs past the end returns what is there; one beyond it nothing.
    uint8_t tail[16] = {};
    EXPECT_EQ(Read_File(file.c_str(), tail, 95, sizeof tail), 5);
    EXPECT_EQ(tail[4], 99);
    EXPECT_EQ(Read_File(file.c_str(), tail, 200, sizeof tail), 0);

    // Writing into a missing file creates it; the gap before the offset is zeros.
    const std::string fresh = path("fresh.bin");
    EXPECT_EQ(Write_File(fresh.c_str(), patch, 3, 2), 2);
    EXPECT_EQ(contents(fresh), std::string("\0\0\0\xAA\xBB", 5));
}

TEST_F(UtilFiles, UnopenablePathsFail) {
    char buffer[4];
    const std::string nowhere = path("no/such/dir/file");
    EXPECT_EQ(Read_File(nowhere.c_str(), buffer, 0, sizeof buffer), -1);
    EXPECT_EQ(Write_File(nowhere.c_str(), buffer, 0, sizeof buffer), -1);
    EXPECT_EQ(Read_File(dir_.c_str(), buffer, 0, sizeof buffer), -1);
    EXPECT_EQ(Write_File(dir_.c_str(), buffer, 0, sizeof buffer), -1);
    EXPECT_FALSE(fs::exists(path("no")));
}

TEST_F(UtilFiles, LogAppendsAndCutsLongMessages) {
    const std::string file = path("driver.log");
    wk_log(file.c_str(), "first %d\n", 1);
    wk_log(file.c_str(), "%s=%u", "second", 2u);
    EXPECT_EQ(contents(file), "first 1\nsecond=2");

    const std::string long_file = path("long.log");
    const std::string message(400, 'x');
    wk_log(long_file.c_str(), "%s|", message.c_str());
    EXPECT_EQ(contents(long_file), std::string(255, 'x'));

    wk_log(path("no/dir/file.log").c_str(), "dropped %d", 3); // silently skipped
    EXPECT_FALSE(fs::exists(path("no")));
}

TEST(Dump, TenBytesPerLineAfterTheHeading) {
    uint8_t bytes[12];
    for (int i = 0; i < 12; ++i) bytes[i] = static_cast<uint8_t>(i + 0xF6);

    ::testing::internal::CaptureStdout();
    dump_b(bytes, 12);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "[dump_b] len=12\r\n"
              "0xf6 0xf7 0xf8 0xf9 0xfa 0xfb 0xfc 0xfd 0xfe 0xff \r\n"
              "0x00 0x01 \r\n");

    ::testing::internal::CaptureStdout();
    _dump("frame", bytes, 10);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "[frame]\tlen=10\r\n"
              "0xf6 0xf7 0xf8 0xf9 0xfa 0xfb 0xfc 0xfd 0xfe 0xff \r\n");

    ::testing::internal::CaptureStdout();
    _dump("none", bytes, 0);
    dump_b(bytes, -3);
    dump_b(nullptr, 4);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "[none]\tlen=0\r\n[dump_b] len=-3\r\n[dump_b] len=4\r\n");
}

} // namespace
