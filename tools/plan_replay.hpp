// Plays a recording on the manager under a layout and watches the segments. One at a time in a process: the manager and the
// simulated machine are there once.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "plan_layout.hpp"

namespace velmora::tools {

// A request that the recording's programs were given and these would not be.
struct PlanRefusal {
    unsigned line = 0;
    std::uint32_t asker = 0, segment = 0; // indices
    std::uint32_t bytes = 0;
    bool operator==(const PlanRefusal&) const = default;
};

// What became of a segment.
struct PlanUse {
    std::uint32_t usable = 0; // bytes in whole blocks
    std::uint32_t peak = 0;   // most bytes in use, in whole blocks
    unsigned peakLine = 0;    // after this line, the first time
    std::uint32_t waste = 0;  // of the peak: bytes in blocks that nobody asked for
    std::uint32_t longest =
        0; // the longest run of free blocks when it was shortest: the largest request still served, bytes
    unsigned longestLine = 0;
    unsigned overflowed = 0; // requests of this segment that were served by the heap
    unsigned refused = 0;
    bool operator==(const PlanUse&) const = default;
};

// Bytes in use of each segment after a line.
struct PlanMoment {
    unsigned line = 0;
    std::vector<std::uint32_t> used;
    bool operator==(const PlanMoment&) const = default;
};

struct PlanResult {
    std::string impossible;            // why the layout cannot be used at all, in words; empty where it can
    unsigned refused = 0;              // requests
    std::vector<PlanRefusal> refusals; // the first of them
    std::vector<PlanUse> use;          // of each segment
    std::vector<PlanMoment> moments;
    bool good() const { return impossible.empty() && refused == 0; }
    bool operator==(const PlanResult&) const = default;
};

enum class PlanDepth {
    Verdict, // ends at the first refusal
    Whole,
    WithMoments // of the use over time too
};

constexpr std::size_t kMostRefusals = 100; // that are listed

PlanResult playRecording(const PlanRecording& recording, const PlanLayout& layout, PlanDepth depth);

} // namespace velmora::tools
