#include <cstring>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "tags/cip_types.h"

namespace plc {
namespace {

TEST(TagTypes, CodeLookupsFindNamesAndWidthsAcrossTheUnorderedCodes) {
    EXPECT_STREQ(type2str(0xC1), "BOOL");
    EXPECT_STREQ(type2str(0xD6), "TIME");
    EXPECT_STREQ(type2str(0xCE), "TIME_OF_DAY");
    EXPECT_STREQ(type2str(0xCF), "DATE_AND_TIME");
    EXPECT_STREQ(type2str(0xD5), "STRING2");
    EXPECT_EQ(type2bits(0xCB), 64u);
    EXPECT_EQ(type2bits(0xD0), 0u);
    EXPECT_EQ(type2bits(0xC1), 1u);
    EXPECT_EQ(type2bits(0xD6), 64u);
    // Only the low 16 bits of a row's code exist: a wider code matches nothing.
    testing::internal::CaptureStdout();
    EXPECT_EQ(type2str(0x100C1), nullptr);
    testing::internal::GetCapturedStdout();
}

TEST(TagTypes, UnknownCodesPrintTheirLineAndClearTheSharedBuffer) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(type2str(0xFFFF), nullptr); // the terminator is not a type
    EXPECT_EQ(type2str(0xD7), nullptr);
    EXPECT_EQ(type2bits(0x00), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[PLC] don't find this type id at line 75\r\n"
              "[PLC] don't find this type id at line 75\r\n"
              "[PLC] don't find this type id at line 87\r\n");

    const char *text = type2str(0xC4);
    ASSERT_STREQ(text, "DINT");
    type2bits(0xC2);
    EXPECT_STREQ(text, "");
    // A longer name followed by a shorter one leaves no tail of the first.
    text = type2str(0xCF);
    text = type2str(0xC3);
    EXPECT_STREQ(text, "INT");
}

TEST(TagTypes, NameLookupIsExactAndNeverMatchesTheTerminator) {
    ASSERT_NE(find_type_by_name("DINT"), nullptr);
    EXPECT_EQ(find_type_by_name("DINT")->code, 0xC4);
    EXPECT_EQ(find_type_by_name("STRING2")->code, 0xD5);
    EXPECT_EQ(find_type_by_name("STRING")->code, 0xD0);
    EXPECT_EQ(find_type_by_name("Dint"), nullptr);
    EXPECT_EQ(find_type_by_name("DINT "), nullptr);
    EXPECT_EQ(find_type_by_name(""), nullptr);
    EXPECT_EQ(find_type_by_name(std::string_view("TIMEX", 4))->code, 0xD6);
}

TEST(TagTypes, DoubleWordSetIsExactlyLintUlintLrealLword) {
    std::set<uint32_t> found;
    for (uint32_t code = 0; code <= 0xFFFF; ++code) {
        if (is_double_word_type(code)) found.insert(code);
    }
    // Entries carry 16-bit codes.
    EXPECT_EQ(found, (std::set<uint32_t>{0xC5, 0xC9, 0xCB, 0xD4}));
    EXPECT_FALSE(is_double_word_type(kTypeTime));
}

} // namespace
} // namespace plc
