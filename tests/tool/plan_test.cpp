// Plans: what a recording needs, worked out by hand, and what other layouts make of it. Replays run in processes of their own.
#include <algorithm>

#include <gtest/gtest.h>

#include "tools/plan_page.hpp"
#include "tools/plan_search.hpp"

namespace velmora::test {
namespace {

using namespace tools;

constexpr std::uint32_t kBlock = 4096;

// The fixed segments take 0x212000 bytes of the area. Each line has its number behind it.
const std::string kBegins = "# velmora-mm recording 1\n"    // 1
                            "load \"95000000-9e000000\"\n"; // 2
const std::string kEnds = "# end of recording\n";
const std::string kBand = kBegins +
                          "# asked by first [10]\n"                                                  // 3
                          "table\n"                                                                  // 4
                          "start\n"                                                                  // 5
                          "create name=BAND type=float kind=list bytes=1M block=4K map=8 lock=yes\n" // 6
                          "malloc segment=BAND bytes=10000 owner=1 -> $a\n"                          // 7
                          "# asked by second [11]\n"                                                 // 8
                          "malloc segment=BAND bytes=100K owner=2 -> $b\n"                           // 9
                          "malloc segment=BAND bytes=1 owner=1 -> $c\n"                              // 10
                          "free $b\n"                                                                // 11
                          "malloc segment=BAND bytes=50K owner=2 -> $d\n"                            // 12
                          "collect segment=BAND owner=1\n" +                                         // 13
                          kEnds;
const std::string kPages = kBegins +
                           "table\n"                                                                                // 3
                           "start\n"                                                                                // 4
                           "create name=PAGE type=float kind=list bytes=64K block=4K map=8 lock=yes overflow=yes\n" // 5
                           "create name=HEAP type=float kind=list block=8K lock=yes\n"                              // 6
                           "malloc segment=PAGE bytes=40K owner=1 -> $a\n"                                          // 7
                           "malloc segment=PAGE bytes=40K owner=1 -> $b\n"                                          // 8
                           "free $b\n"                                                                              // 9
                           "collect segment=PAGE owner=1\n" + // 10
                           kEnds;

PlanRecording recordingOf(const std::string& text, bool withoutProbes = false)
{
    return readRecording(text, "job.txt", withoutProbes);
}

PlanResult played(const std::string& text, const std::string& layout = "", PlanDepth depth = PlanDepth::WithMoments)
{
    const PlanRecording recording = recordingOf(text);
    PlanWorkers workers(recording, 1);
    const PlanJob job{readLayout(layout, "layout.toml", recording), depth};
    return workers.run({&job, 1}).front();
}

std::string refusalOf(const std::string& text)
{
    try {
        recordingOf(text);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "read";
}

std::string refusalOfLayout(const std::string& layout, const std::string& recording = kBand)
{
    try {
        readLayout(layout, "layout.toml", recordingOf(recording));
    } catch (const LayoutError& error) {
        return error.what();
    }
    return "read";
}

// Three blocks, 25, and one: 29 of 255 are in use after line 10, and of their 118784 bytes 10000 + 102400 + 1 were asked for. A
// fresh segment fills from its end, so 226 blocks in one run are left; the last request goes into the run that line 11 left.
TEST(Plan, PeakWasteAndTheLargestRequestStillServed)
{
    const PlanResult result = played(kBand);
    EXPECT_TRUE(result.good());
    ASSERT_EQ(result.use.size(), 1U);
    EXPECT_EQ(result.use[0], (PlanUse{.usable = 255 * kBlock,
                                      .peak = 29 * kBlock,
                                      .peakLine = 10,
                                      .waste = 29 * kBlock - 112401,
                                      .longest = 226 * kBlock,
                                      .longestLine = 10,
                                      .overflowed = 0,
                                      .refused = 0}));
    ASSERT_FALSE(result.moments.empty());
    EXPECT_EQ(result.moments.back(), (PlanMoment{13, {13 * kBlock}})) << "owner 2 keeps its 50K";
}

// Ten blocks, 100, and one.
TEST(Plan, SmallerBlocksWasteLess)
{
    const PlanResult result = played(kBand, "[segment.BAND]\nblock = \"1K\"\n");
    EXPECT_EQ(result.use[0].peak, 111U * 1024);
    EXPECT_EQ(result.use[0].waste, 111U * 1024 - 112401);
}

// One block of what is asked for goes to the owner map.
TEST(Plan, ARefusalNamesItsLineAndWhoAsked)
{
    const PlanResult ofB = played(kBand, "segment.BAND.bytes = \"112K\""); // 27 blocks
    EXPECT_EQ(ofB.refusals, (std::vector<PlanRefusal>{{.line = 9, .asker = 2, .segment = 0, .bytes = 102400}}));
    EXPECT_EQ(ofB.refused, 1U) << "what was refused is not released, and the rest has room";
    EXPECT_EQ(recordingOf(kBand).askers.at(2), "second [11]");
    const PlanResult ofC = played(kBand, "segment.BAND.bytes = \"116K\"");
    EXPECT_EQ(ofC.refusals, (std::vector<PlanRefusal>{{.line = 10, .asker = 2, .segment = 0, .bytes = 1}}));
    EXPECT_TRUE(played(kBand, "segment.BAND.bytes = \"120K\"").good());
}

// Fifteen blocks: the first request takes ten of them, the second as many of the heap's, which are twice as large.
TEST(Plan, OverflowTakesAsManyOfTheHeapsBlocks)
{
    const PlanResult result = played(kPages);
    EXPECT_EQ(result.use[0].overflowed, 1U);
    EXPECT_EQ(result.use[0].peak, 10 * kBlock);
    EXPECT_EQ(result.use[1].peak, 20 * kBlock);
    EXPECT_EQ(result.use[1].waste, 10 * kBlock);
    const PlanResult roomy = played(kPages, "segment.PAGE.bytes = \"1M\"");
    EXPECT_EQ(roomy.use[0].overflowed, 0U);
    EXPECT_EQ(roomy.use[1].peak, 0U);
    const PlanResult without = played(kPages, "segment.PAGE.overflow = false");
    EXPECT_EQ(without.refusals, (std::vector<PlanRefusal>{{.line = 8, .asker = 0, .segment = 0, .bytes = 40960}}));
}

// Both requests lie in the heap here, and nobody owns them there. The recording releases the second itself.
TEST(Plan, WhatACleanUpTookIsReleasedWhereItLiesInTheHeap)
{
    const PlanResult result = played(kPages, "segment.PAGE.bytes = \"32K\"");
    EXPECT_EQ(result.use[0].overflowed, 2U);
    EXPECT_EQ(result.use[1].peak, 40 * kBlock);
    EXPECT_EQ(result.moments.back(), (PlanMoment{10, {0, 0}}));
}

TEST(Plan, LayoutsThatCannotBeUsedAreSaidSo)
{
    EXPECT_EQ(played(kBand, "segment.BAND.bytes = \"200M\"").impossible,
              "the layout cannot hold its segments: there is no room for BAND (line 6)");
    EXPECT_EQ(played(kBand, "segment.BAND.map = 1").impossible,
              "an owner map of width 1 in BAND cannot hold owner 0x2 (line 9)");
    EXPECT_EQ(played(kBand, "segment.BAND.map = 0").impossible,
              "an owner map of width 0 in BAND cannot hold owner 0x1 (line 7)");
    EXPECT_TRUE(played(kBand, "segment.BAND.map = 2").good());
    EXPECT_NE(played(kBand, "area = \"1M\"").impossible, "");
}

// 29 blocks and one for the map; the area has one page more than the fixed segments and that, because a free stretch of exactly
// the size is not taken.
TEST(Plan, TheSmallestLayoutWasReplayedAndEachStepBelowItRefused)
{
    const PlanRecording recording = recordingOf(kBand);
    const PlanLayout own = layoutOf(recording);
    PlanWorkers workers(recording, 2);
    const PlanSearch search = searchSmallest(recording, own, workers);
    ASSERT_TRUE(search.found);
    EXPECT_EQ(search.smallest.segments[0].bytes, 30 * kBlock);
    EXPECT_EQ(search.smallest.area, 0x212000 + 31 * kBlock);
    const auto verdict = [&](const PlanLayout& layout) {
        const auto tried = std::ranges::find(search.tries, layout, &PlanTry::layout);
        return tried == search.tries.end() ? "not tried" : tried->verdict;
    };
    EXPECT_EQ(verdict(search.smallest), "");
    PlanLayout less = search.smallest;
    less.area -= kBlock;
    EXPECT_EQ(verdict(less), "the layout cannot hold its segments: there is no room for BAND (line 6)");
    less.segments[0].bytes -= kBlock;
    EXPECT_EQ(verdict(less), "line 10: BAND refused 1 B");
}

TEST(Plan, TheSameComesOutHoweverManyProcessesReplay)
{
    const PlanRecording recording = recordingOf(kPages);
    const PlanLayout own = layoutOf(recording);
    std::vector<PlanSearch> searches;
    std::vector<std::vector<PlanResult>> results;
    for (const unsigned count : {1U, 2U, 5U}) {
        PlanWorkers workers(recording, count);
        searches.push_back(searchSmallest(recording, own, workers));
        std::vector<PlanJob> jobs;
        for (const PlanTry& tried : searches.back().tries)
            jobs.push_back({tried.layout, PlanDepth::WithMoments});
        results.push_back(workers.run(jobs));
        EXPECT_EQ(workers.count(), count);
    }
    for (const std::size_t other : {1U, 2U}) {
        EXPECT_EQ(searches[other].smallest, searches[0].smallest);
        EXPECT_EQ(searches[other].tries, searches[0].tries);
        EXPECT_EQ(results[other], results[0]);
    }
}

TEST(Plan, WhatWasRefusedWhenItWasRecordedIsNotAskedAgain)
{
    const std::string text = kBegins +
                             "table\nstart\n"
                             "create name=BAND type=float kind=list bytes=64K block=4K\n"
                             "malloc segment=BAND bytes=1M -> $a1\nexpect no room\n"
                             "malloc segment=BAND bytes=4K -> $a2\nexpect = 0x95321000\n"
                             "malloc segment=BAND bytes=4K owner=1 -> $a3\nexpect refused EASSERT\n" +
                             kEnds;
    const PlanRecording recording = recordingOf(text);
    EXPECT_EQ(recording.refusedThen, 2U);
    EXPECT_EQ(std::ranges::count(recording.operations, PlanOperation::Kind::Malloc, &PlanOperation::kind), 1);
    EXPECT_TRUE(played(text).good());
}

TEST(Plan, MemoryThatNobodyUsedBeforeItsReleaseIsAProbe)
{
    const std::string text = kBegins +
                             "table\nstart\n"
                             "create name=BAND type=float kind=list bytes=1M block=4K\n"
                             "malloc segment=BAND bytes=64K -> $a1\nexpect = 0x95402000\nfree $a1\n"
                             "malloc segment=BAND bytes=4K -> $a2\nexpect = 0x95411000\nmmap $a2\nfree $a2\n"
                             // Its page begins before it.
                             "malloc segment=BAND bytes=8K -> $a3\nexpect = 0x95410800\n"
                             "mmap 0x95410000 bytes=4K\nfree $a3\n"
                             "malloc segment=BAND bytes=4K -> $a4\n" + // never released
                             kEnds;
    const PlanRecording recording = recordingOf(text, true);
    EXPECT_EQ(recording.probes, 1U);
    EXPECT_EQ(std::ranges::count(recording.operations, PlanOperation::Kind::Malloc, &PlanOperation::kind), 3);
    EXPECT_EQ(recordingOf(text).probes, 0U);
}

TEST(Plan, LinesThatSayNothingOfAllocationsArePassedOver)
{
    const std::string text = kBegins +
                             "table\nstart\nioctl 0x5399 0x10010000\nexpect = 0\npoke 0x10000000 00\n"
                             "create name=BAND type=float kind=list bytes=1M block=4K\n"
                             "free 0x95400000 segment=BAND bytes=4K\n" +
                             kEnds;
    EXPECT_EQ(recordingOf(text).passedOver, 3U);
}

TEST(Plan, FilesThatAreNoRecordingAreRefused)
{
    EXPECT_EQ(refusalOf("load \"95000000-9e000000\"\n"), "job.txt is no recording: it does not begin with '# "
                                                         "velmora-mm recording 1', as those of 'velmora-mm record' do");
    const std::string cut = "job.txt ends in the middle: its last line is not '# end of recording'";
    EXPECT_EQ(refusalOf(kBand.substr(0, kBand.size() - 1)), cut);
    EXPECT_EQ(refusalOf(kBand.substr(0, kBand.size() / 2)), cut);
    EXPECT_EQ(refusalOf(kBegins + "free $a\n" + kEnds), "job.txt, line 3: nothing was given to $a");
    EXPECT_EQ(refusalOf(kBegins + "malloc segment=5 bytes=1\n" + kEnds),
              "job.txt, line 3: no line before created the segment with handle 5");
    EXPECT_EQ(refusalOf("# velmora-mm recording 1\ntable\n" + kEnds),
              "job.txt has no area: no line 'load \"START-END\"'");
}

TEST(Plan, LayoutFilesSayWhereTheyAreWrong)
{
    EXPECT_EQ(refusalOfLayout("colour = 1"),
              "layout.toml, line 1: unknown key 'colour': a layout has area and [segment.NAME]");
    EXPECT_EQ(refusalOfLayout("\n[segment.BAND]\nsize = 1"),
              "layout.toml, line 3: unknown key 'size': a segment has bytes, block, map and overflow");
    EXPECT_EQ(refusalOfLayout("[segment.NONE]\nbytes = 1"),
              "layout.toml, line 1: the recording has no segment 'NONE'; it has BAND");
    EXPECT_EQ(refusalOfLayout("[segment.BAND]\nblock = 3000"),
              "layout.toml, line 2: block is a power of two, 16 or more");
    EXPECT_EQ(refusalOfLayout("[segment.BAND]\nmap = 3"),
              "layout.toml, line 2: map is a number of bits for each block: 0, 1, 2, 4 or 8");
    EXPECT_EQ(refusalOfLayout("[segment.BAND]\noverflow = 1"), "layout.toml, line 2: overflow is true or false");
    EXPECT_EQ(refusalOfLayout("area = \"many\""),
              "layout.toml, line 1: area is a number of bytes, as 4096, \"64K\" or \"8MiB\"");
    EXPECT_EQ(refusalOfLayout("area = 4097"),
              "layout.toml, line 1: area is made of whole pages of 4096 bytes, 960 MiB at most");
    EXPECT_EQ(refusalOfLayout("segment = 1"), "layout.toml, line 1: segment is a table");
    EXPECT_EQ(refusalOfLayout("[segment.heap]\nbytes = 1", kPages),
              "layout.toml, line 2: the heap has no bytes of its own: it takes what is left of area");
    EXPECT_TRUE(refusalOfLayout("area = ").starts_with("layout.toml, line 1: "));
}

TEST(Plan, ALayoutIsReadBackAsItWasWritten)
{
    const PlanRecording recording = recordingOf(kPages);
    PlanLayout layout = layoutOf(recording);
    EXPECT_EQ(layout.area, 0x9000000U - 0x200000);
    EXPECT_EQ(readLayout(layoutText(layout, recording), "again", recording), layout);
    layout.area -= 12 * kBlock;
    layout.segments[0] = {123 * kBlock, 512, 4, false};
    EXPECT_EQ(readLayout(layoutText(layout, recording), "again", recording), layout);
}

TEST(Plan, ThePageShowsEachSegmentAndNeedsNothingElse)
{
    const PlanRecording recording = recordingOf(kPages);
    const PlanResult result = played(kPages);
    const std::string page = planPage(recording, "a<b", {{"Own", layoutOf(recording), result}}, nullptr);
    EXPECT_NE(page.find("aria-label=\"use of PAGE\""), std::string::npos);
    EXPECT_NE(page.find("heap: at most 80 KiB, after line 8"), std::string::npos);
    EXPECT_NE(page.find("Plan of a&lt;b"), std::string::npos);
    for (const char* const outside : {"http", "src=", "@import", "href"})
        EXPECT_EQ(page.find(outside), std::string::npos) << outside;
}

} // namespace
} // namespace velmora::test
