// Session scripts with names and expectations.
#include <sstream>

#include <gtest/gtest.h>

#include "tools/recording.hpp"
#include "tools/replay.hpp"

namespace velmora::test {
namespace {

using namespace tools;

struct Replayed {
    explicit Replayed(const std::string& script)
    {
        std::istringstream in(script);
        std::ostringstream out;
        end = replay(in, out, *simulatedTarget());
        std::istringstream lines(out.str());
        for (std::string line; std::getline(lines, line);)
            if (!line.starts_with("log "))
                answers.push_back(line);
    }
    ReplayEnd end;
    std::vector<std::string> answers; // without the kernel log
};

using Lines = std::vector<std::string>;

// The area's first 0x212000 bytes are fixed segments; a float segment of 1 MiB with an 8-bit map of 4 KiB blocks has 255 of
// them behind one block of map: 0x95313000 to 0x95412000.
const std::string kBand = "load \"95000000-9e000000\"\ntable\nstart\n"
                          "create name=BAND type=float kind=list bytes=1M block=4K map=8 lock=yes -> $s\n";

Lines behindBand(const Replayed& replayed)
{
    EXPECT_EQ(replayed.answers.at(3), "= handle=5 bytes=0x100000 usable=0xff000");
    return {replayed.answers.begin() + 4, replayed.answers.end()};
}

TEST(Replay, BlocksAreTakenAndGivenBackByName)
{
    const Replayed replayed(kBand + "malloc segment=BAND bytes=64K owner=1 -> $a\n"
                                    "malloc segment=$s bytes=4K owner=1 -> $b\n"
                                    "free $a\n"
                                    "malloc segment=5 bytes=8K owner=2\n"
                                    "contains $b segment=BAND\n"
                                    "phys $b+0x10\n"
                                    "mmap $b\n"
                                    "collect segment=BAND owner=3\n");
    EXPECT_EQ(behindBand(replayed),
              (Lines{"= 0x95402000", "= 0x95401000", "= 0", "= 0x95410000", "= yes", "= 0x01401010", "= 0", "= 0"}));
    EXPECT_EQ(replayed.end.session, sim::SessionEnd::Understood);
}

TEST(Replay, NoRoomAndRefusalsAreAnswersInWords)
{
    const Replayed replayed(kBand + "malloc segment=BAND bytes=0xff001 owner=1 -> $a\n"
                                    "malloc segment=BAND bytes=4K -> $b\n"
                                    "create name=BAND type=float kind=list bytes=1M block=4K\n"
                                    "mst segment=49\nmct row=5\nmst segment=48\n");
    EXPECT_EQ(behindBand(replayed),
              (Lines{"= no room", "= refused EASSERT", "= refused EASSERT", "= no entry", "= no row", "= unused"}));
}

TEST(Replay, LinesInBytesAndByNameMixAndKnowEachOthersSegments)
{
    const Replayed replayed("load \"95000000-9e000000\"\nioctl 0x5308 {00000000}\nstart\n"
                            "ioctl 0x5301 {42414e4401010801000010000010000000000000000000000000000"
                            "0}\n"
                            "malloc segment=BAND bytes=64K owner=1\n"
                            "ioctl 0x5302 {05000000001000000100000000000000}\n"
                            "expect = 0 05000000001000000100000000104095\n");
    EXPECT_EQ(replayed.answers.at(4), "= 0x95402000");
    EXPECT_EQ(replayed.answers.at(6), "= met");
}

TEST(Replay, AnExpectationThatIsNotMetIsOneLineAndTheScriptGoesOn)
{
    const Replayed replayed(kBand + "malloc segment=BAND bytes=64K owner=1 -> $a\n"
                                    "expect = 0x95402000\n"
                                    "expect $a = 0x95402000\n"
                                    "expect $a = 0x95403000\n"
                                    "expect refused EASSERT\n"
                                    "malloc segment=BAND bytes=2M owner=1 -> $b\n"
                                    "expect no room\n"
                                    "expect = 0x95402000\n");
    EXPECT_EQ(behindBand(replayed),
              (Lines{"= 0x95402000", "= met", "= met", "! line 8: expected $a = 0x95403000, got $a = 0x95402000",
                     "! line 9: expected refused EASSERT, got 0x95402000", "= no room", "= met",
                     "! line 12: expected 0x95402000, got no room"}));
    EXPECT_EQ(replayed.end.unmet, 3U);
    EXPECT_EQ(replayed.end.session, sim::SessionEnd::Understood);
}

TEST(Replay, WhatIsNotUnderstoodEndsTheScript)
{
    for (const auto& [line, why] : std::vector<std::pair<std::string, std::string>>{
             {"free $a", "nothing was given to $a"},
             {"expect", "'expect' takes = ANSWER, refused CODE, no room, or $variable = NUMBER"},
             {"expect =", "'expect' lacks what is expected"},
             {"expect $a = 1", "nothing was given to $a"},
             {"malloc segment=NONE bytes=1", "there is no segment 'NONE'"}}) {
        const Replayed replayed("locks\n" + line + "\nlocks\n");
        EXPECT_EQ(replayed.answers, (Lines{"= search=0 free=0 push=0 pop=0", "! line 2: " + why})) << line;
        EXPECT_EQ(replayed.end.session, sim::SessionEnd::NotUnderstood);
    }
    EXPECT_EQ(Replayed("expect = 0\n").answers, (Lines{"! line 1: nothing was answered yet that could be expected"}));
}

TEST(Replay, AVariableThatGotNothingIsNone)
{
    const Replayed replayed(kBand + "malloc segment=BAND bytes=64K owner=1 -> $a\n"
                                    "malloc segment=BAND bytes=2M owner=1 -> $a\nfree $a\n");
    EXPECT_EQ(behindBand(replayed), (Lines{"= 0x95402000", "= no room", "! line 7: nothing was given to $a"}));
}

TEST(Replay, ACommandThatStopsTheControllerEndsTheScript)
{
    const Replayed replayed(kBand + "fill 0xa4000000 bytes=1 byte=0\nlocks\n");
    EXPECT_EQ(behindBand(replayed), (Lines{"= oops 0xa4000000"}));
    EXPECT_EQ(replayed.end.session, sim::SessionEnd::Closed);
}

TEST(Replay, ARecordingThatWasCutIsRunAsFarAsItIsWhole)
{
    const std::string begins(kRecordingBegins), ends(kRecordingEnds);
    EXPECT_FALSE(Replayed(begins + "\nlocks\n" + ends + "\n").end.cut);
    EXPECT_FALSE(Replayed("locks\nlocks").end.cut) << "a script is no recording";
    const Replayed withoutEnd(begins + "\nlocks\n");
    EXPECT_TRUE(withoutEnd.end.cut);
    EXPECT_EQ(withoutEnd.answers,
              (Lines{"= search=0 free=0 push=0 pop=0",
                     "! line 3: the recording ends here, in the middle: '# end of recording' is missing"}));
    const Replayed inALine(begins + "\nlocks\nlocks");
    EXPECT_TRUE(inALine.end.cut);
    EXPECT_EQ(inALine.answers.size(), 2U) << "half a line may mean something else";
}

} // namespace
} // namespace velmora::test
