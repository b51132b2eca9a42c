// A kernel's log, as its texts and records have it. That of a controller, and following, are check_commands.sh's.
#include <gtest/gtest.h>

#include "tools/kernel_log.hpp"

namespace velmora::test {
namespace {

using namespace tools;
using Lines = std::vector<std::string>;

TEST(KernelLog, LinesLoseLevelTimeAndCaller)
{
    EXPECT_EQ(logLines("<4>[   12.345678] one\n<4>two\nthree\n[   12.3] four\n<6>[    1.0][  T12] five\n"),
              (Lines{"one", "two", "three", "four", "five"}));
}

TEST(KernelLog, WhatOnlyLooksLikeAPrefixStays)
{
    EXPECT_EQ(logLines("[S_ID][Hd] x\n<> y\n[  ] z\n<a> b\n"), (Lines{"[S_ID][Hd] x", "<> y", "[  ] z", "<a> b"}));
}

TEST(KernelLog, ALaterReadingHasWhatWasAddedEvenIfTheOldestLinesAreGone)
{
    EXPECT_EQ(addedLines({"a", "b", "c"}, {"a", "b", "c", "d"}), (Lines{"d"}));
    EXPECT_EQ(addedLines({"a", "b", "c"}, {"c", "d", "e"}), (Lines{"d", "e"}));
    EXPECT_EQ(addedLines({"a", "b"}, {"x", "y"}), (Lines{"x", "y"}));
    EXPECT_EQ(addedLines({}, {"x"}), (Lines{"x"}));
    EXPECT_EQ(addedLines({"a", "a"}, {"a", "a", "a"}), (Lines{"a"})); // lines may repeat
    EXPECT_EQ(addedLines({"a"}, {}), Lines());
}

TEST(KernelLog, ARecordsTextEndsBeforeItsKeys)
{
    EXPECT_EQ(recordText("6,339,5140900,-;the text; and more\n SUBSYSTEM=char\n"), "the text; and more");
    EXPECT_EQ(recordText("4,1,2,c;bare\n"), "bare");
}

TEST(KernelLog, ARecordsBytesAreGivenBackAsTheyWerePrinted)
{
    EXPECT_EQ(recordText("6,1,2,-;a\\x0ab\\x5cc\n"), "a\nb\\c");
    EXPECT_EQ(recordText("6,1,2,-;a\\x4\n"), "a\\x4"); // no such byte
}

TEST(KernelLog, WhatAProgramWroteIntoTheLogIsNoMessageOfTheKernel)
{
    EXPECT_EQ(recordText("30,1,2,-;systemd[1]: hello\n"), ""); // facility 3
    EXPECT_EQ(recordText("nonsense"), "");
    EXPECT_EQ(recordText("6,1,2"), "");
    EXPECT_EQ(recordText(""), "");
}

} // namespace
} // namespace velmora::test
