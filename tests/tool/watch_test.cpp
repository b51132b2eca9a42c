// "velmora-mm watch": what is sampled, and whole screens of several sizes, without a terminal.
#include <gtest/gtest.h>

#include <optional>

#include "controller/device.h"
#include "tools/watch_view.hpp"

namespace velmora::test {
namespace {

using tools::WatchOrder;
using tools::WatchView;

// The lines as they stand on the screen.
std::string screenOf(const WatchView& view, unsigned columns, unsigned rows, bool asciiOnly = true)
{
    std::string text;
    for (const tools::WatchLine& line : tools::watchLines(view, columns, rows, asciiOnly)) {
        std::string row;
        for (const tools::WatchPiece& piece : line)
            row += piece.text;
        text += row.substr(0, row.find_last_not_of(' ') + 1) + "\n";
    }
    return text;
}

std::string repeated(char sign, unsigned times)
{
    return std::string(times, sign);
}

// PAGE has 256 blocks of 4 KiB, of which 0, 64, 192 were used and now 128 are; JOB 16 blocks of 1 KiB, all in use.
WatchView twoSegments()
{
    WatchView view;
    view.device = "unix:/tmp/mm.sock";
    view.time = "12:34:56";
    view.segments.push_back({.handle = 1,
                             .name = "JOB",
                             .start = 0x95200000,
                             .blocks = 16,
                             .stride = 1024,
                             .peak = 16,
                             .history = {{0, 0}}});
    view.segments.push_back({.handle = 5,
                             .name = "PAGE",
                             .start = 0x95300000,
                             .blocks = 256,
                             .stride = 4096,
                             .peak = 192,
                             .history = {{256, 256}, {192, 192}, {64, 32}, {128, 33}}});
    view.log = {"first line", "second line", "third line"};
    return view;
}

TEST(WatchView, EightyColumnsHaveBarsFiguresAndBothPasts)
{
    // The bar has 80 - 7 - 42 = 31 columns; 128 of 256 blocks are 15.5 of them. Free: 8, 6, 2 and 4 eighths; longest: 8, 6, 1
    // and, begun, 2.
    EXPECT_EQ(screenOf(twoSegments(), 80, 12), "12:34:56 1 s by handle  unix:/tmp/mm.sock\n"
                                               "JOB  |" +
                                                   repeated('#', 31) +
                                                   "| 100 %   16 KiB of   16 KiB  peak   16 KiB\n"
                                                   "     free      0 B                       longest      0 B\n"
                                                   "PAGE |" +
                                                   repeated('#', 16) + repeated(' ', 15) +
                                                   "|  50 %  512 KiB of    1 MiB  peak  768 KiB\n"
                                                   "     free  512 KiB @*:=                  longest  132 KiB @*.:\n"
                                                   "kernel log\n"
                                                   "first line\n"
                                                   "second line\n"
                                                   "third line\n"
                                                   "\n"
                                                   "\n"
                                                   "h help  q quit  p pause  s sort  + - interval\n");
}

TEST(WatchView, FortyColumnsHaveLessOfEach)
{
    // The bar has 40 - 7 - 18 = 15 columns.
    EXPECT_EQ(screenOf(twoSegments(), 40, 12), "12:34:56 1 s by handle  unix:/tmp/mm.soc\n"
                                               "JOB  |###############| 100 % of   16 KiB\n"
                                               "free\n"
                                               "PAGE |########       |  50 % of    1 MiB\n"
                                               "free @*:=\n"
                                               "kernel log\n"
                                               "first line\n"
                                               "second line\n"
                                               "third line\n"
                                               "\n"
                                               "\n"
                                               "h help  q quit  p pause  s sort  + - int\n");
}

TEST(WatchView, TwentyColumnsAndFiveRowsHaveTheBars)
{
    EXPECT_EQ(screenOf(twoSegments(), 20, 5), "12:34:56 1 s by hand\n"
                                              "JOB  |#######| 100 %\n"
                                              "PAGE |####   |  50 %\n"
                                              "\n"
                                              "h help  q quit  p pa\n");
}

TEST(WatchView, Utf8DrawsBlocks)
{
    const std::string screen = screenOf(twoSegments(), 40, 12, false);
    EXPECT_NE(screen.find("PAGE |████████       |  50 %"), std::string::npos) << screen;
    EXPECT_NE(screen.find("free █▆▂▄\n"), std::string::npos) << screen;
}

TEST(WatchView, OrderPauseAndHelpAreSaid)
{
    WatchView view = twoSegments();
    view.order = WatchOrder::Name;
    view.paused = true;
    view.interval = 0.5;
    EXPECT_TRUE(screenOf(view, 80, 12).starts_with("PAUSED 12:34:56 0.5 s by name  unix:"));
    view.segments[0].name = "ZOB";
    const std::string byName = screenOf(view, 80, 12);
    EXPECT_LT(byName.find("PAGE"), byName.find("ZOB"));
    view.order = WatchOrder::Free;
    const std::string byFree = screenOf(view, 80, 12);
    EXPECT_LT(byFree.find("ZOB"), byFree.find("PAGE"));
    view.help = true;
    EXPECT_NE(screenOf(view, 80, 24).find("s   sort by handle, use, free, name\n"), std::string::npos);
    EXPECT_EQ(screenOf(view, 80, 24).find("ZOB"), std::string::npos);
}

TEST(WatchView, MoreSegmentsThanRowsAreCountedAndReached)
{
    WatchView view = twoSegments();
    for (std::uint32_t handle = 6; handle < 11; ++handle)
        view.segments.push_back(
            {.handle = handle, .name = "S" + std::to_string(handle), .blocks = 4, .stride = 512, .history = {{4, 4}}});
    const std::string screen = screenOf(view, 20, 6); // one line is the head's, one the keys'
    EXPECT_NE(screen.find("S6   |       |   0 %\nand 4 more (down)\nh help"), std::string::npos) << screen;
    view.first = 3;
    EXPECT_NE(screenOf(view, 20, 6).find("by hand\nS7   |       |   0 %\n"), std::string::npos)
        << screenOf(view, 20, 6);
}

TEST(WatchView, NoSizeBreaksTheScreen)
{
    WatchView view = twoSegments();
    for (const bool help : {false, true})
        for (unsigned columns = tools::kLeastWatchColumns; columns < 130; ++columns)
            for (unsigned rows = tools::kLeastWatchRows; rows < 30; ++rows) {
                view.help = help;
                const auto lines = tools::watchLines(view, columns, rows, true);
                ASSERT_EQ(lines.size(), rows) << columns;
                for (const tools::WatchLine& line : lines) {
                    std::size_t length = 0;
                    for (const tools::WatchPiece& piece : line)
                        length += piece.text.size();
                    ASSERT_LE(length, columns) << rows;
                }
            }
}

TEST(WatchView, SamplesKeepThePeakUntilTheSegmentIsAnotherOne)
{
    sim::bootController();
    Device device(sim::openDevice());
    WatchView view;
    view.sample(device);
    EXPECT_TRUE(view.segments.empty());
    device.buildTable();
    device.startLibrary(MM_SM_BKUP_OK);
    const SegmentRequest request{.name = "PAGE", .bytes = 1 << 20, .blockBytes = 4096};
    const std::uint32_t pages = device.createSegment(request).hulHandle;
    const auto address = device.allocate(pages, 5 * 4096);
    view.sample(device);
    device.release(pages, *address, 5 * 4096);
    view.sample(device);
    ASSERT_EQ(view.segments.size(), 1U);
    EXPECT_EQ(view.segments[0].used(), 0U);
    EXPECT_EQ(view.segments[0].peak, 5U);
    EXPECT_EQ(view.segments[0].history.size(), 2U);
    device.startLibrary(MM_SM_BKUP_OK);
    view.sample(device);
    EXPECT_TRUE(view.segments.empty());
    device.createSegment({.name = "PAGE", .bytes = 2 << 20, .blockBytes = 4096});
    view.sample(device);
    ASSERT_EQ(view.segments.size(), 1U);
    EXPECT_EQ(view.segments[0].peak, 0U);
}

} // namespace
} // namespace velmora::test
