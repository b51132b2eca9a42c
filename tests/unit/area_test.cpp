// The subcommand "velmora-mm area": the module parameter of a reserved stretch, the reverse, and what it refuses.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "tools/commands.hpp"

namespace velmora::test {
namespace {

using tools::Words;

// The subcommand ends with this status and says this somewhere, on either stream.
void expectAnswer(const Words& words, int status, const std::string& says)
{
    std::string line = "velmora-mm area";
    for (const std::string& word : words)
        line.append(" ").append(word);
    SCOPED_TRACE(line);
    std::ostringstream out;
    EXPECT_EQ(tools::area(words, out, out), status);
    EXPECT_NE(out.str().find(says), std::string::npos) << out.str();
}

constexpr int kGood = 0, kUseless = 1, kUnusableArguments = 2;

TEST(Area, TheTextIsForTheProductKernelUnlessConstantsAreGiven)
{
    expectAnswer({"--text", "0x01000000-0x0a000000"}, kGood, "95000000-9e000000\n");
    expectAnswer({"--text", "16M+144M"}, kGood, "95000000-9e000000\n");
    expectAnswer({"--text", "--page-offset", "0xc0000000", "--phys-offset", "0x40000000", "0x50000000+144M"}, kGood,
                 "d0000000-d9000000\n");
}

TEST(Area, TheManagedBoundsAreOneMebibyteInside)
{
    expectAnswer({"16M+144M"}, kGood, "kernel virtual 0x95100000 to 0x9df00000");
    expectAnswer({"16M+4M"}, kUseless, "leave nothing");
}

TEST(Area, TheLinearMapIsCheckedWhereItsEndIsGiven)
{
    expectAnswer({"16M+144M"}, kGood, "not checked");
    expectAnswer({"--text", "--high-memory", "0xa4000000", "112M+144M"}, kGood, "9b000000-a4000000\n");
    expectAnswer({"--high-memory", "0xa4000000", "113M+144M"}, kUseless, "beyond the linear map");
}

TEST(Area, AStretchMustBeWholePagesOfRamAboveItsStartAndBelow4GiB)
{
    expectAnswer({"32M-16M"}, kUseless, "not above its start");
    expectAnswer({"--phys-offset", "0x40000000", "16M+16M"}, kUseless, "below the start of RAM");
    expectAnswer({"0+16M"}, kUseless, "must start above PAGE_OFFSET");
    expectAnswer({"0x01000001+16M"}, kUseless, "whole pages");
    expectAnswer({"3900M+100M"}, kUseless, "32-bit address space");
}

TEST(Area, ATextThatTheModuleTakesIsTranslatedBack)
{
    expectAnswer({"--check", "95000000-9e000000"}, kGood, "physical 0x01000000 to 0x0a000000");
}

TEST(Area, ATextThatTheModuleRefusesIsNamedUseless)
{
    expectAnswer({"--check", "94000000-96000000"}, kUseless, "must start above PAGE_OFFSET 0x94000000");
    expectAnswer({"--check", "95000000-94100000"}, kUseless, "0x94000000, must be above PAGE_OFFSET");
    expectAnswer({"--check", "96000000-95000000"}, kUseless, "not above its start");
    expectAnswer({"--check", "none"}, kUseless, "two hexadecimal numbers");
    expectAnswer({"--check", "0x95000000-0x96000000"}, kUseless, "21 characters");
}

TEST(Area, SignsAreNoPartOfAText)
{
    for (const char* const text : {"+5000000-9e000000", "95000000--2000000", "95000000- +600000"})
        expectAnswer({"--check", text}, kUseless, "two hexadecimal numbers");
}

TEST(Area, UnusableArgumentsAreNamed)
{
    expectAnswer({}, kUnusableArguments, "the area is missing");
    expectAnswer({"16M+16M", "48M+16M"}, kUnusableArguments, "more than one");
    expectAnswer({"16M+16M", "--check", "95000000-9e000000"}, kUnusableArguments, "not both");
    expectAnswer({"--page-offset"}, kUnusableArguments, "lacks its value");
    expectAnswer({"--nonsense"}, kUnusableArguments, "unknown option");
    expectAnswer({"x-y"}, kUnusableArguments, "no number");
    expectAnswer({"1M+5G"}, kUnusableArguments, "no number of up to 32 bits");
}

TEST(Area, HelpIsAnAnswer)
{
    expectAnswer({"--help"}, kGood, "usage: velmora-mm area");
}

} // namespace
} // namespace velmora::test
