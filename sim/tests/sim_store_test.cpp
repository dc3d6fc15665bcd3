// The simulator's variable store: tag list loading, name lookup with
// subscripts, bit-level access and text values.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/tag_list.h"
#include "sim/variable_store.h"

using namespace plc::sim;

namespace {

const char kTagList[] = "X,Y,INT,[1..2_0..3],,,,,0\n"        // comma in the name, two dimensions
                        "Cube,DINT,[0..1_0..2_0..3],,,,,1\n" // three dimensions
                        "S,STRING,,20,,,,2\n"
                        "S2,STRING,,,,,,3\n"      // no declared length
                        "LA,LREAL,[0..9],,,,,4\n" // 64-bit: real element bounds
                        "F,BOOL,[0..19],,,,,5\n"
                        "N,INT,[-2..2],,,,,6\n"
                        "a.b,c,UDINT,,,,,,7\n"
                        "\n"
                        "Q,NOTATYPE,,,,,,8\n" // no field is a type
                        "Short,DINT,,,9\n"    // too few fields
                        "Inv,INT,[3..1],,,,,10\n"
                        "Bnd,INT,[0..x],,,,,11\n"
                        "R,REAL,,,,,,12\r\n"
                        "X,Y,INT,[1..2_0..3],,,,,13\n" // the same declaration again
                        "R,DINT,,,,,,14\n"             // contradicts line 14
                        "Last,SINT,,,,,,15";           // no final newline

VariableStore Loaded(std::vector<std::string> *warnings_out = nullptr) {
    VariableStore store;
    std::vector<std::string> warnings;
    LoadTagListText(kTagList, "t.csv", store, warnings);
    if (warnings_out) *warnings_out = warnings;
    return store;
}

const Variable &Var(const VariableStore &store, const std::string &name) {
    const auto index = store.Find(name);
    EXPECT_TRUE(index) << name;
    return store.at(index.value_or(0));
}

} // namespace

TEST(SimTagList, DeclaresShapesAndSkipsLinesItCannotRead) {
    VariableStore store;
    std::vector<std::string> warnings;
    const TagListSummary summary = LoadTagListText(kTagList, "t.csv", store, warnings);
    EXPECT_EQ(summary.declared, 10u);
    EXPECT_EQ(summary.repeated, 1u);
    EXPECT_EQ(summary.skipped, 5u);
    ASSERT_EQ(warnings.size(), 5u);
    EXPECT_EQ(warnings[0].rfind("t.csv:10: ", 0), 0u) << warnings[0];
    EXPECT_EQ(warnings[4].rfind("t.csv:16: ", 0), 0u) << warnings[4];

    const Variable &xy = Var(store, "X,Y");
    EXPECT_EQ(xy.type->code, 0xC3);
    EXPECT_EQ(xy.element_count, 8u);
    EXPECT_EQ(xy.data.size(), 16u);
    EXPECT_EQ(Var(store, "Cube").element_count, 24u);
    EXPECT_EQ(Var(store, "S").data.size(), 21u);
    EXPECT_EQ(Var(store, "S2").data.size(), kDefaultStringLength + 1);
    EXPECT_EQ(Var(store, "LA").data.size(), 80u);
    EXPECT_EQ(Var(store, "LA").element_count, 10u);
    EXPECT_EQ(Var(store, "F").data.size(), 3u); // 20 packed bits
    EXPECT_EQ(Var(store, "F").bit_size(), 20u);
    EXPECT_EQ(Var(store, "a.b,c").type->code, 0xC8);
    EXPECT_EQ(Var(store, "R").type->code, 0xCA); // the first declaration stays
    EXPECT_EQ(Var(store, "Last").type->code, 0xC2);
    EXPECT_FALSE(store.Find("Q"));
    EXPECT_FALSE(store.Find("Q,NOTATYPE"));
}

TEST(SimStore, LookupTakesSubscriptsOnlyAfterArrayNames) {
    VariableStore store = Loaded();
    std::string error;
    // A scalar whose own name ends in a subscript-like text.
    ASSERT_TRUE(store.Declare("Odd[1]", *FindType("DINT"), {}, 0, &error));

    auto ref = store.Lookup("X,Y[2,3]");
    ASSERT_TRUE(ref);
    EXPECT_TRUE(ref->element);
    EXPECT_EQ(ref->position, 7u); // row 2 of 1..2, column 3 of 0..3
    ref = store.Lookup("Cube[1,2,3]");
    ASSERT_TRUE(ref);
    EXPECT_EQ(ref->position, 23u);
    ref = store.Lookup("N[-2]");
    ASSERT_TRUE(ref);
    EXPECT_EQ(ref->position, 0u);
    ref = store.Lookup("X,Y");
    ASSERT_TRUE(ref);
    EXPECT_FALSE(ref->element);
    ref = store.Lookup("Odd[1]");
    ASSERT_TRUE(ref);
    EXPECT_FALSE(ref->element);

    for (const char *bad : {"X,Y[3,0]", "X,Y[0,0]", "X,Y[1]", "X,Y[1,2,3]", "X,Y[1, 2]", "F[20]",
                            "F[]", "F[0x1]", "S[0]", "Nope", "Nope[1]", "X"}) {
        EXPECT_FALSE(store.Lookup(bad)) << bad;
    }
}

TEST(SimStore, BitAccessOnPackedBoolsAndLintHalves) {
    VariableStore store = Loaded();
    const uint16_t f = *store.Find("F");
    const uint8_t one = 1;
    ASSERT_TRUE(store.WriteBits(f, 9, 1, &one));
    ASSERT_TRUE(store.WriteBits(f, 17, 1, &one));
    std::vector<uint8_t> out;
    ASSERT_TRUE(store.ReadBits(f, 8, 12, out));
    EXPECT_EQ(out, (std::vector<uint8_t>{0x02, 0x02}));
    EXPECT_EQ(Var(store, "F").data, (std::vector<uint8_t>{0x00, 0x02, 0x02}));
    out.clear();
    EXPECT_FALSE(store.ReadBits(f, 15, 6, out)); // one bit past the end
    EXPECT_TRUE(out.empty());
    EXPECT_FALSE(store.WriteBits(f, 20, 1, &one));

    std::string error;
    ASSERT_TRUE(store.Declare("Big", *FindType("LINT"), {Dim{0, 1}}, 0, &error));
    const uint16_t big = *store.Find("Big");
    ASSERT_TRUE(store.Assign("Big[1]", "-2", &error)) << error;
    const uint8_t low_half[4] = {5, 0, 0, 0};
    ASSERT_TRUE(store.WriteBits(big, 64, 32, low_half));
    EXPECT_EQ(store.FormatLine(big), "Big LINT 0 -4294967291"); // 0xFFFFFFFF00000005
    out.clear();
    ASSERT_TRUE(store.ReadBits(big, 96, 32, out));
    EXPECT_EQ(out, (std::vector<uint8_t>{0xFF, 0xFF, 0xFF, 0xFF}));

    // Unaligned: bits 3..10 of a USINT pair receive 0xA5.
    ASSERT_TRUE(store.Declare("U", *FindType("USINT"), {Dim{0, 1}}, 0, &error));
    const uint16_t u = *store.Find("U");
    const uint8_t pattern = 0xA5;
    ASSERT_TRUE(store.WriteBits(u, 3, 8, &pattern));
    EXPECT_EQ(Var(store, "U").data, (std::vector<uint8_t>{0x28, 0x05}));
    out.clear();
    ASSERT_TRUE(store.ReadBits(u, 3, 8, out));
    EXPECT_EQ(out, (std::vector<uint8_t>{0xA5}));
}

TEST(SimStore, AssignDecodesValuesByTypeAndRefusesWhatDoesNotFit) {
    VariableStore store;
    std::string error;
    ASSERT_TRUE(store.Declare("I", *FindType("INT"), {}, 0, &error));
    ASSERT_TRUE(store.Declare("US", *FindType("USINT"), {}, 0, &error));
    ASSERT_TRUE(store.Declare("S", *FindType("STRING"), {}, 5, &error));
    ASSERT_TRUE(store.Declare("T", *FindType("TIME"), {Dim{0, 3}}, 0, &error));
    ASSERT_TRUE(store.Declare("B", *FindType("BOOL"), {}, 0, &error));
    ASSERT_TRUE(store.Declare("R", *FindType("REAL"), {}, 0, &error));
    ASSERT_TRUE(store.Declare("LR", *FindType("LREAL"), {}, 0, &error));
    ASSERT_TRUE(store.Declare("A", *FindType("DINT"), {Dim{1, 3}}, 0, &error));

    EXPECT_FALSE(store.Assign("I", "32768", &error));
    EXPECT_TRUE(store.Assign("I", "-32768", &error));
    EXPECT_EQ(store.FormatLine(0), "I INT -32768");
    EXPECT_TRUE(store.Assign("I", "0xFFFF", &error)); // hex is the bit pattern
    EXPECT_EQ(store.FormatLine(0), "I INT -1");
    EXPECT_FALSE(store.Assign("I", "0x10000", &error));
    EXPECT_FALSE(store.Assign("I", "12abc", &error));
    EXPECT_FALSE(store.Assign("US", "-1", &error));
    EXPECT_TRUE(store.Assign("US", "255", &error));

    EXPECT_TRUE(store.Assign("S", "a\"b\\", &error));
    EXPECT_EQ(store.FormatLine(2), "S STRING \"a\\\"b\\\\\"");
    EXPECT_FALSE(store.Assign("S", "sixsix", &error));
    EXPECT_TRUE(store.Assign("S", "hi", &error)); // shorter text clears the rest
    EXPECT_EQ(store.FormatLine(2), "S STRING \"hi\"");

    EXPECT_TRUE(store.Assign("T[0]", "1.5", &error));
    EXPECT_TRUE(store.Assign("T[1]", "2s", &error));
    EXPECT_TRUE(store.Assign("T[2]", "250us", &error));
    EXPECT_TRUE(store.Assign("T[3]", "-7ns", &error));
    EXPECT_EQ(store.FormatLine(3), "T TIME 1500000ns 2000000000ns 250000ns -7ns");
    EXPECT_FALSE(store.Assign("T[0]", "1min", &error));

    EXPECT_FALSE(store.Assign("B", "yes", &error));
    EXPECT_TRUE(store.Assign("B", "true", &error));
    EXPECT_EQ(store.FormatLine(4), "B BOOL true");
    EXPECT_TRUE(store.Assign("R", "0.1", &error));
    EXPECT_EQ(store.FormatLine(5), "R REAL 0.1");
    EXPECT_TRUE(store.Assign("LR", "-2.5e-3", &error));
    EXPECT_EQ(store.FormatLine(6), "LR LREAL -0.0025");
    EXPECT_TRUE(store.Assign("A", "7", &error)); // whole array
    EXPECT_TRUE(store.Assign("A[3]", "-1", &error));
    EXPECT_EQ(store.FormatLine(7), "A DINT 7 7 -1");
    EXPECT_FALSE(store.Assign("A[4]", "1", &error));
}
