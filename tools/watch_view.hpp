// What "velmora-mm watch" shows: samples of the segments, and the lines that a terminal of some size has of them. Knows no
// terminal.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include <velmora/device.hpp>

namespace velmora::tools {

constexpr unsigned kLeastWatchColumns = 20, kLeastWatchRows = 5;

// A segment since it was first seen.
struct WatchedSegment {
    struct Moment {
        std::uint32_t free = 0, longest = 0; // blocks
    };
    std::uint32_t handle = 0;
    std::string name = {};
    MM_TAddr start = 0;
    std::uint32_t blocks = 0;
    std::uint32_t stride = 0;        // bytes from one block to the next
    std::uint32_t peak = 0;          // blocks, the most that were seen in use
    std::deque<Moment> history = {}; // the newest last; never empty

    std::uint32_t used() const { return blocks - history.back().free; }
};

enum class WatchOrder { Handle, Use, Free, Name };

struct WatchView {
    std::string device = {}, time = {};
    double interval = 1; // seconds
    WatchOrder order = WatchOrder::Handle;
    bool paused = false;
    bool help = false;
    std::size_t first = 0;                     // segment that is shown first
    std::vector<WatchedSegment> segments = {}; // in the order of the handles
    std::deque<std::string> log = {};          // the last lines, the newest last
    std::string logUnknown = {};               // why there are none; empty where there are

    // Adds what the device says now: a segment that is gone, or another one by now, begins anew.
    void sample(Device& device);
    // The newest lines stay.
    void addLog(const std::vector<std::string>& lines);
};

// A part of a line that is shown in one way.
struct WatchPiece {
    enum class Kind { Plain, Title, Used, Full, Soft };
    std::string text;
    Kind kind = Kind::Plain;
};
using WatchLine = std::vector<WatchPiece>;

// As many lines as there are rows, none longer than so many columns: the first has device, time and settings, the last the
// keys, then come segments, and the log in what is left. columns, rows: not below the least. rows 0: as many as it takes,
// without keys.
std::vector<WatchLine> watchLines(const WatchView& view, unsigned columns, unsigned rows, bool asciiOnly);

} // namespace velmora::tools
