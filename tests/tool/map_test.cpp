// "velmora-mm map": what is read from a device, and the picture for a terminal, whole.
#include <gtest/gtest.h>

#include <regex>
#include <sstream>

#include <nlohmann/json.hpp>

#include "controller/device.h"
#include "small_map.hpp"
#include "tools/map_page.hpp"
#include "tools/map_text.hpp"
#include "tools/terminal.hpp"

namespace velmora::test {
namespace {

using tools::mapText;
using Kind = tools::Stretch::Kind;

std::string repeated(const char* glyph, unsigned times)
{
    std::string text;
    while (times-- != 0)
        text += glyph;
    return text;
}

// Of the lines, none is longer.
std::size_t longestLine(const std::string& text)
{
    std::size_t longest = 0;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        longest = std::max(longest, line.size());
    return longest;
}

TEST(MapText, ASmallAreaIsDrawnBlockByBlockIn80Columns)
{
    // 64 characters of 2 KiB: the row has 2, what is unknown 2.5, the segment 32, the rest 27.5.
    EXPECT_EQ(mapText(smallMap(), {.columns = 80}),
              "unix:/tmp/mm.sock: 128 KiB from 0x95100000 to 0x95120000\n"
              " a character is 2 KiB\n"
              "0x95100000 |$M??*PAGE---------------------------*???????????????????????????|\n"
              "0x95100000  $MCT     4 KiB  kept for a fixed segment that nobody created\n"
              "0x95101000           5 KiB  not shown by any table: the heap's, or nobody's\n"
              "0x95102400  PAGE    64 KiB  segment 5\n"
              "0x95112400          55 KiB  not shown by any table: the heap's, or nobody's\n"
              "The heap is not shown: it was not asked for\n"
              "\n"
              "PAGE, segment 5: 63 KiB in 126 blocks of 512 B\n"
              " 62 free (31 KiB) in 2 runs, the longest 60 (30 KiB)\n"
              " a character is 1 block\n"
              "0x95102800 |............................................................AAAA|\n"
              "0x9510a800 |AAAAAA..BBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBB####|\n"
              "\n"
              "A owner 3      5 KiB    B owner 5     25 KiB\n"
              "\n"
              ". free\n"
              "# allocated, recorded for nobody; + partly so\n");
}

TEST(MapText, BlocksThatShareACharacterHaveTheLetterOfMostSmall)
{
    // 18 columns leave 16 characters: 126 blocks are 16 of 8, the last of 6. Block 60 is in the middle of the eighth, block
    // 70 near the end of the ninth, block 122 in the middle of the last.
    const std::string text = mapText(smallMap(), {.columns = 20, .rows = 1});
    EXPECT_NE(text.find(" a character is 8\n blocks, 4 KiB\n|.......aaBBBBBB+|\n"), std::string::npos) << text;
    EXPECT_NE(text.find("a small letter:\npartly that owner's\n"), std::string::npos) << text;
}

TEST(MapText, ColoursAddNothingButColours)
{
    const std::string text = mapText(smallMap(), {.columns = 80, .colour = true});
    EXPECT_NE(text.find("|" + repeated(".", 60) + "\033[30;41mAAAA\033[0m|\n"), std::string::npos) << text;
    EXPECT_NE(text.find("|\033[30;41mAAAAAA\033[0m..\033[30;42m" + repeated("B", 50) + "\033[30;47m####\033[0m|\n"),
              std::string::npos)
        << text;
    EXPECT_EQ(std::regex_replace(text, std::regex("\033\\[[0-9;]*m"), ""), mapText(smallMap(), {.columns = 80}));
}

TEST(MapText, Utf8HasLinesAndPointsOfItsOwn)
{
    const std::string text = mapText(smallMap(), {.columns = 80, .asciiOnly = false});
    EXPECT_NE(text.find("0x95102800 │" + repeated("·", 60) + "AAAA│\n"), std::string::npos) << text;
    EXPECT_NE(text.find("│$M??*PAGE" + repeated("─", 27) + "*" + repeated("?", 27) + "│\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\n· free\n"), std::string::npos) << text;
}

TEST(MapText, WhereOwnersAreNotKnownItCountsAndSaysWhy)
{
    tools::MemoryMap map = smallMap();
    map.segments.front().runs.clear();
    map.segments.front().unknown = "allocated blocks without an owner cannot be told from free ones";
    // 64 of 126 blocks are allocated: 32.5 of 64 characters.
    EXPECT_NE(mapText(map, {.columns = 80})
                  .find(" 62 free, the longest run 60\n"
                        " only counted, not where: allocated blocks without an owner cannot be told from\n"
                        " free ones\n"
                        " allocated |" +
                        repeated("=", 33) + repeated(" ", 31) + "|\n"),
              std::string::npos);
}

TEST(MapText, NoLineIsLongerThanTheTerminal)
{
    for (const unsigned columns : {20, 21, 39, 40, 43, 44, 79, 80, 120, 300})
        EXPECT_LE(longestLine(mapText(smallMap(), {.columns = columns, .rows = 3})), columns);
    EXPECT_LE(longestLine(mapText(cutUpMap(), {.columns = 20})), 20U);
}

TEST(MapText, MoreRowsShowMoreAndNeverMoreThanThereIs)
{
    // 524288 blocks in 10 rows of 64: 820 blocks a character become 896, which takes 586 of the 640.
    const std::string text = mapText(cutUpMap(), {.columns = 80, .rows = 10});
    EXPECT_NE(text.find(" a character is 896 blocks, 224 KiB\n"), std::string::npos) << text;
    const std::string small = mapText(smallMap(), {.columns = 80, .rows = 10});
    EXPECT_EQ(small, mapText(smallMap(), {.columns = 80, .rows = 2}));
}

TEST(MapText, MoreOwnersThanLettersLeaveTheSmallestWithoutOne)
{
    tools::MemoryMap map = smallMap();
    map.segments.front().runs.clear();
    map.holdings.clear();
    for (std::uint32_t number = 1; number <= 30; ++number) {
        map.segments.front().runs.push_back({0x95102800 + number * 512, 4, false, Owner(number)});
        map.holdings.push_back({Owner(number), number < 5 ? 512U : 2048U}); // 1 to 4 hold least
    }
    const std::string text = mapText(map, {.columns = 80});
    EXPECT_NE(text.find("|&&&&&&&&&&&&&&&&AAAABBBB"), std::string::npos) << text;
    EXPECT_NE(text.find("& owners that hold less than these\n"), std::string::npos) << text;
}

TEST(MapText, WhatIsNotStartedIsSaid)
{
    tools::MemoryMap map;
    map.device = "unix:/x";
    EXPECT_EQ(mapText(map, {}), "unix:/x: no table shows anything: the library was not started\n");
}

TEST(MapText, OfTheHeapItHasThePiecesOrWhyNot)
{
    tools::MemoryMap map = smallMap();
    map.heapUnknown.clear();
    map.stretches[3] = {.kind = Kind::Heap, .start = 0x95112400, .end = 0x95120000, .name = "heap", .free = 0x4000};
    const std::string text = mapText(map, {.columns = 80});
    EXPECT_NE(text.find("----*heap-----------------------|\n"), std::string::npos) << text;
    EXPECT_NE(text.find("0x95101000           5 KiB  no segment's\n"), std::string::npos) << text;
    EXPECT_NE(text.find("0x95112400  heap    55 KiB  a piece of the heap, 16 KiB free\n"), std::string::npos) << text;
}

TEST(MapText, NamesDoNotReachTheTerminalAsTheyAre)
{
    tools::MemoryMap map = smallMap();
    map.stretches[2].name = "\033[2J";
    std::ranges::copy(std::string("\033[2J"), map.segments.front().entry.stInfoFromApp.aubSegID);
    const std::string text = mapText(map, {.columns = 80});
    EXPECT_EQ(text.find('\033'), std::string::npos);
    EXPECT_NE(text.find("\n?[2J, segment 5:"), std::string::npos) << text;
}

TEST(MapPage, NothingInItCanEndTheScriptOrComeFromElsewhere)
{
    tools::MemoryMap map = smallMap();
    map.device = "unix:/tmp/</script><b>";
    const std::string page = tools::mapPage(map, "now & <then>");
    EXPECT_EQ(page.find("</script><b>"), std::string::npos);
    EXPECT_NE(page.find("as it was at now &amp; &lt;then&gt;;"), std::string::npos);
    EXPECT_EQ(page.find("{{"), std::string::npos);
    const std::string withoutSvgName = std::regex_replace(page, std::regex("http://www.w3.org/2000/svg"), "");
    EXPECT_FALSE(std::regex_search(withoutSvgName, std::regex("https?:|src=|@import|<link")));
}

TEST(MapListing, RunsArePairsOfBlocksAndOwner)
{
    const tools::Json listing = tools::mapListing(smallMap());
    EXPECT_EQ(listing["schema"], "velmora-mm map");
    EXPECT_EQ(listing["segments"][0]["start"], "0x95102800");
    EXPECT_EQ(listing["segments"][0]["runs"].dump(), "[[60,null],[10,3],[2,null],[50,5],[4,0]]");
    EXPECT_EQ(listing["stretches"][1]["kind"], "unknown");
}

TEST(Area, TheModulesParameterIsReadWithoutItsMargins)
{
    const tools::Area area = tools::areaOfParameter("95000000-9e000000");
    EXPECT_EQ(area.start, 0x95100000U);
    EXPECT_EQ(area.end, 0x9DF00000U);
    for (const char* text : {"", "-", "95000000", "95000000-", "95000000-95200000", "9e000000-95000000", "1-2-3", "x-y",
                             "0x95000000-0x9e000000", "195000000-19e000000"})
        EXPECT_THROW(tools::areaOfParameter(text), tools::UsageError) << text;
}

TEST(Terminal, WrappedTextBreaksBetweenWords)
{
    EXPECT_EQ(tools::wrapped("one two three", 7), "one two\nthree\n");
    EXPECT_EQ(tools::wrapped("one two three", 8, 1), " one two\n three\n");
    EXPECT_EQ(tools::wrapped("abcdefghij kl", 4), "abcd\nefgh\nij\nkl\n");
    EXPECT_EQ(tools::wrapped("", 4), "");
}

// A started controller: the rows of fixed segments at the area's start, "PAGE" behind them.
class MapOfDevice : public testing::Test
{
protected:
    MapOfDevice()
    {
        sim::bootController();
        device_.emplace(sim::openDevice());
    }
    Device& device() { return *device_; }
    tools::MemoryMap map() { return tools::readMap(device(), "here", tools::Area{0x95100000, 0x9DF00000}, {}); }

private:
    std::optional<Device> device_;
};

TEST_F(MapOfDevice, BeforeTheStartNothingIsShown)
{
    const tools::MemoryMap map = this->map();
    ASSERT_EQ(map.stretches.size(), 1U);
    EXPECT_EQ(map.stretches[0].kind, Kind::Unknown);
    EXPECT_EQ(tools::readMap(device(), "here", std::nullopt, {}).stretches.size(), 0U);
}

TEST_F(MapOfDevice, StretchesCoverTheAreaAndSayWhoHasThem)
{
    device().buildTable();
    device().startLibrary(MM_SM_BKUP_OK);
    device().createSegment({.name = "$JCB", .blockBytes = 1024, .type = MM_FIXED});
    const auto pages = device().createSegment({.name = "PAGE", .bytes = 1 << 20, .blockBytes = 4096, .mapBits = 8});
    device().allocate(pages.hulHandle, 3 * 4096, 9);
    const tools::MemoryMap map = this->map();

    MM_TAddr reached = map.area.start;
    for (const tools::Stretch& stretch : map.stretches) {
        EXPECT_EQ(stretch.start, reached);
        reached = stretch.end;
    }
    EXPECT_EQ(reached, map.area.end);

    ASSERT_GE(map.stretches.size(), 7U); // $MCT, $RJL, $JCB, $UEV, $FIL, PAGE, the rest
    EXPECT_EQ(map.stretches[0].name, "$MCT");
    EXPECT_EQ(map.stretches[0].kind, Kind::Row);
    EXPECT_EQ(map.stretches[2].name, "$JCB");
    EXPECT_EQ(map.stretches[2].kind, Kind::Segment);
    EXPECT_EQ(map.stretches[2].end - map.stretches[2].start, 0x10000U);
    EXPECT_EQ(map.stretches.back().kind, Kind::Unknown);

    ASSERT_EQ(map.holdings.size(), 1U);
    EXPECT_EQ(map.holdings[0].owner, Owner{9});
    EXPECT_EQ(map.holdings[0].bytes, 3U * 4096);
}

} // namespace
} // namespace velmora::test
