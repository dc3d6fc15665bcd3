#include "plc_driver.h"
#include "util/checksum.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

class Md5File : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "plc_md5_XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
    }
    void TearDown() override {
        std::error_code ignored;
        fs::remove_all(dir_, ignored);
    }

    std::string write(const std::string &name, const std::string &content) {
        const fs::path path = dir_ / name;
        std::ofstream(path, std::ios::binary) << content;
        return path.string();
    }

    // Runs CalcFileMD5 on a mutable copy of the path; returns the digest, or
    // "fail" with the printed text when it reports failure.
    std::string digest(std::string path, std::string *printed = nullptr) {
        std::vector<char> text(path.begin(), path.end());
        text.push_back('\0');
        char out[33] = {};
        ::testing::internal::CaptureStdout();
        const int ok = CalcFileMD5(text.data(), out);
        const std::string output = ::testing::internal::GetCapturedStdout();
        if (printed != nullptr) *printed = output;
        if (ok != 1) return "fail";
        EXPECT_EQ(output, "");
        EXPECT_EQ(plc::md5_state::fp, nullptr) << "file left open";
        return std::string(out);
    }

    fs::path dir_;
};

// Lengths around the padding boundaries: 55 fits padding and length in one
// block, 56 needs a second block, 64 is a whole block plus a padding block.
TEST_F(Md5File, KnownDigestsAcrossBlockBoundaries) {
    EXPECT_EQ(digest(write("empty", "")), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(digest(write("abc", "abc")), "900150983cd24fb0d6963f7d28e17f72");
    const struct {
        size_t n;
        const char *md5;
    } vectors[] = {
        {55, "ef1772b6dff9a122358552954ad0df65"},
        {56, "3b0c8ac703f828b04c6c197006d17218"},
        {64, "014842d480b571495a4a0363793f7367"},
        {128, "e510683b3f5ffe4093d021808bc6ff70"},
    };
    for (const auto &v : vectors)
        EXPECT_EQ(digest(write("a" + std::to_string(v.n), std::string(v.n, 'a'))), v.md5)
            << v.n << " bytes";

    // Every byte value, so a mistake in the little-endian word loading shows.
    std::string mixed;
    for (int i = 0; i < 1000; ++i) mixed.push_back(static_cast<char>(i % 251));
    EXPECT_EQ(digest(write("mixed", mixed)), "a24f1e3ef66950e1327f210e3997ba2c");
}

TEST_F(Md5File, QuotedPathNamesTheSameFile) {
    const std::string path = write("with space", "abc");
    EXPECT_EQ(digest("\"" + path + "\""), "900150983cd24fb0d6963f7d28e17f72");
    // A lone quote strips to an empty path, which cannot be opened.
    std::string printed;
    EXPECT_EQ(digest("\"", &printed), "fail");
    EXPECT_EQ(printed, "Can not open this file!\n");
}

TEST_F(Md5File, UnopenableFilesAreReported) {
    std::string printed;
    EXPECT_EQ(digest((dir_ / "missing").string(), &printed), "fail");
    EXPECT_EQ(printed, "Can not open this file!\n");
    EXPECT_EQ(digest(dir_.string(), &printed), "fail");
    EXPECT_EQ(printed, "Can not open this file!\n");
}

// The module length is signed 32-bit: a 2 GB file must be refused, not
// wrapped into a small or negative length.
TEST_F(Md5File, FilesOfTwoGigabytesAreRefused) {
    const std::string path = (dir_ / "huge").string();
    const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(fd, 0);
    const bool sparse = ::ftruncate(fd, off_t(1) << 31) == 0;
    ::close(fd);
    if (!sparse) GTEST_SKIP() << "no sparse files here";
    std::string printed;
    EXPECT_EQ(digest(path, &printed), "fail");
    EXPECT_EQ(printed, "Sorry! Can not calculate files which larger than 2 GB!\n");
}

TEST(Md5ExitDeathTest, ExitPathEndsTheProcess) {
    // "fast" forks without re-executing the test program, which an emulated
    // cross-built test could not do.
    GTEST_FLAG_SET(death_test_style, "fast");
    char out[33] = {};
    char plain[] = "exit";
    EXPECT_EXIT(CalcFileMD5(plain, out), ::testing::ExitedWithCode(0), "");
    char quoted[] = "\"exit\"";
    EXPECT_EXIT(CalcFileMD5(quoted, out), ::testing::ExitedWithCode(0), "");
}

TEST(Crc16, ModbusVectors) {
    const uint8_t digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(crc16(digits, sizeof digits), 0x374B);
    const uint8_t frame[] = {0x01, 0x03, 0x00, 0x00, 0x00, 0x0A};
    EXPECT_EQ(crc16(frame, sizeof frame), 0xC5CD);
    EXPECT_EQ(crc16(frame, 0), 0xFFFF);
    EXPECT_EQ(crc16(nullptr, 5), 0xFFFF);

    // Full table check against the bitwise algorithm over a 255-byte block
    // (the longest count) touching every table index.
    uint8_t block[255];
    for (int i = 0; i < 255; ++i) block[i] = static_cast<uint8_t>(i * 37 + 11);
    uint16_t crc = 0xFFFF;
    for (uint8_t b : block) {
        crc ^= b;
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) ? (crc >> 1) ^ 0xA001 : crc >> 1;
    }
    EXPECT_EQ(crc16(block, sizeof block), static_cast<uint16_t>((crc >> 8) | (crc << 8)));
}

} // namespace
