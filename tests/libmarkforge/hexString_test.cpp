// lockbase::hexString: bytes to text and text to bytes.
#include <gtest/gtest.h>

#include "hexString.h"

using lockbase::hexString;
using Bytes = std::vector<uint8_t>;

TEST(HexStringFromBytes, FormatsTwoUpperCaseDigitsPerByte)
{
    hexString hex(Bytes{0x01, 0xAB, 0x00});
    EXPECT_EQ(hex.text, "01AB00");
    EXPECT_EQ(hex.bytes, (Bytes{0x01, 0xAB, 0x00}));
    EXPECT_TRUE(hex.valid);
    EXPECT_EQ(hex.lineWidth, 0);
}

TEST(HexStringFromBytes, EmptyVectorGivesEmptyValidText)
{
    hexString hex(Bytes{});
    EXPECT_EQ(hex.text, "");
    EXPECT_TRUE(hex.valid);
}

TEST(HexStringFromText, MixedCaseParsesAndKeepsText)
{
    hexString hex(std::string("0a1B"));
    EXPECT_EQ(hex.bytes, (Bytes{0x0A, 0x1B}));
    EXPECT_EQ(hex.text, "0a1B");
    EXPECT_TRUE(hex.valid);
    EXPECT_EQ(hex.lineWidth, 0);
}

TEST(HexStringFromText, EmptyTextIsValidAndEmpty)
{
    hexString hex(std::string(""));
    EXPECT_TRUE(hex.bytes.empty());
    EXPECT_TRUE(hex.valid);
}

TEST(HexStringFromText, OddLengthIsInvalidAndEmpty)
{
    hexString hex(std::string("abc"));
    EXPECT_FALSE(hex.valid);
    EXPECT_EQ(hex.text, "");
    EXPECT_TRUE(hex.bytes.empty());
}

TEST(HexStringFromText, ForeignCharacterIsInvalid)
{
    hexString hex(std::string("0x12"));
    EXPECT_FALSE(hex.valid);
    EXPECT_EQ(hex.text, "");
    EXPECT_TRUE(hex.bytes.empty());
}

TEST(HexStringFromText, SpacesAreSkippedWithinEachPair)
{
    hexString hex(std::string("A 0B"));
    EXPECT_TRUE(hex.valid);
    EXPECT_EQ(hex.bytes, (Bytes{0x0A, 0x0B}));
    EXPECT_EQ(hex.text, "A 0B");

    hexString leading(std::string(" 1"));
    EXPECT_EQ(leading.bytes, (Bytes{0x01}));
}

TEST(HexStringFromText, PairOfSpacesGivesZero)
{
    hexString hex(std::string("  FF"));
    EXPECT_TRUE(hex.valid);
    EXPECT_EQ(hex.bytes, (Bytes{0x00, 0xFF}));
}

TEST(HexStringFromText, SpaceCountsTowardLength)
{
    EXPECT_FALSE(hexString(std::string("A ")).bytes.empty());
    EXPECT_FALSE(hexString(std::string(" AB")).valid);
}

TEST(HexStringRoundTrip, EveryByteValueSurvives)
{
    Bytes all;
    for (int i = 0; i < 256; ++i) all.push_back(static_cast<uint8_t>(i));
    for (size_t length : {size_t(0), size_t(1), size_t(2), size_t(255), size_t(256)}) {
        Bytes input(all.begin(), all.begin() + static_cast<long>(length));
        hexString text(input);
        hexString back(text.text);
        EXPECT_TRUE(back.valid);
        EXPECT_EQ(back.bytes, input) << "length " << length;
    }
}
