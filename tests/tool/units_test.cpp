// Sizes, addresses and names as people write and read them.
#include <gtest/gtest.h>

#include "tools/units.hpp"

namespace velmora::test {
namespace {

using namespace tools;

TEST(Units, SizesArePowersOf1024WhateverTheirEndingSays)
{
    EXPECT_EQ(parseBytes("4096"), 4096U);
    EXPECT_EQ(parseBytes("64K"), 65536U);
    EXPECT_EQ(parseBytes("64k"), 65536U);
    EXPECT_EQ(parseBytes("64KB"), 65536U);
    EXPECT_EQ(parseBytes("8MiB"), 8388608U);
    EXPECT_EQ(parseBytes("1G"), 1073741824U);
    EXPECT_EQ(parseBytes("0x1000"), 4096U);
    EXPECT_EQ(parseBytes("0x1B"), 27U); // a digit
    EXPECT_EQ(parseBytes("7B"), 7U);
}

TEST(Units, WhatIsNoSizeIsNone)
{
    for (const char* const text : {"", "K", "4X", "-1", "+1", "1.5M", "4iB", " 4", "4 ", "0x", "4KK", "iB"})
        EXPECT_EQ(parseBytes(text), std::nullopt) << text;
}

TEST(Units, ASizeEndsWhere32BitsDo)
{
    EXPECT_EQ(parseBytes("4294967295"), 0xFFFFFFFFU);
    EXPECT_EQ(parseBytes("4G"), std::nullopt);
    EXPECT_EQ(parseBytes("4294967296"), std::nullopt);
    EXPECT_EQ(parseBytes("99999999999999999999999"), std::nullopt);
    EXPECT_EQ(parseBytes("4G", std::uint64_t(4) << 30), std::uint64_t(4) << 30);
}

TEST(Units, NumbersAreDecimalOrHexadecimal)
{
    EXPECT_EQ(parseNumber("10"), 10U);
    EXPECT_EQ(parseNumber("0x95312000"), 0x95312000U);
    EXPECT_EQ(parseNumber("0XFFFFFFFF"), 0xFFFFFFFFU);
    EXPECT_EQ(parseNumber("0x100000000"), std::nullopt);
    EXPECT_EQ(parseNumber("95312000h"), std::nullopt);
    EXPECT_EQ(parseNumber("PAGE"), std::nullopt);
}

TEST(Units, ExactSizesTakeTheLargestUnitThatDividesThem)
{
    EXPECT_EQ(bytesText(0), "0 B");
    EXPECT_EQ(bytesText(513), "513 B");
    EXPECT_EQ(bytesText(65536), "64 KiB");
    EXPECT_EQ(bytesText(1044480), "1020 KiB");
    EXPECT_EQ(bytesText(8388608), "8 MiB");
    EXPECT_EQ(bytesText(std::uint64_t(4) << 40), "4096 GiB");
}

TEST(Units, RoundedSizesHaveAtMostFourCharactersBeforeTheUnit)
{
    EXPECT_EQ(roundedBytes(0), "0 B");
    EXPECT_EQ(roundedBytes(1000), "1000 B");
    EXPECT_EQ(roundedBytes(1023), "1023 B");
    EXPECT_EQ(roundedBytes(1044480), "1020 KiB");
    EXPECT_EQ(roundedBytes(1048575), "1 MiB"); // 1023.999 KiB
    EXPECT_EQ(roundedBytes(1572864), "1.5 MiB");
    EXPECT_EQ(roundedBytes(8314880), "7.93 MiB");
}

TEST(Units, AddressesHaveEightDigits)
{
    EXPECT_EQ(addressText(0x95312000), "0x95312000");
    EXPECT_EQ(addressText(16), "0x00000010");
}

TEST(Units, ANameShowsNoByteThatATerminalWouldHeed)
{
    EXPECT_EQ(shownName("$UEV"), "$UEV");
    EXPECT_EQ(shownName("a b"), "a b");
    EXPECT_EQ(shownName("\x1b[2J"), "?[2J");
    EXPECT_EQ(shownName("\xfc\x7f"), "??");
}

} // namespace
} // namespace velmora::test
