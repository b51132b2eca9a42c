// A map worked out by hand, and one with very many runs, for the tests of its pictures.
#pragma once

#include <algorithm>
#include <string>
#include <utility>

#include "tools/memory_map.hpp"

namespace velmora::test {

constexpr Owner kNobody = Owner::Nobody;

// 63 KiB in 126 blocks of 512 bytes: 60 free ones, 10 of owner 3, 2 free, 50 of owner 5, 4 of nobody.
inline tools::Picture smallSegment()
{
    tools::Picture segment;
    segment.handle = 5;
    std::ranges::copy(std::string("PAGE"), segment.entry.stInfoFromApp.aubSegID);
    segment.entry.stInfoFromApp.ulBlkSize = 512;
    segment.entry.pubStartAddr = 0x95102800;
    segment.entry.pubEndAddr = 0x95112400;
    segment.entry.ulTotalBlkNum = 126;
    segment.entry.ulTotalFreeBlkNum = 62;
    segment.entry.ulLargestBlkSize = 60;
    segment.runs = {{0x95102800, 60, true, kNobody},
                    {0x9510A000, 10, false, Owner{3}},
                    {0x9510B400, 2, true, kNobody},
                    {0x9510B800, 50, false, Owner{5}},
                    {0x95111C00, 4, false, kNobody}};
    return segment;
}

// 128 KiB: a row without a segment, something unknown, the segment, something unknown.
inline tools::MemoryMap smallMap()
{
    using Kind = tools::Stretch::Kind;
    return {.device = "unix:/tmp/mm.sock",
            .area = {0x95100000, 0x95120000},
            .areaIsKnown = true,
            .stretches = {{Kind::Row, 0x95100000, 0x95101000, "$MCT"},
                          {Kind::Unknown, 0x95101000, 0x95102400},
                          {Kind::Segment, 0x95102400, 0x95112400, "PAGE", 5},
                          {Kind::Unknown, 0x95112400, 0x95120000}},
            .segments = {smallSegment()},
            .holdings = {{kNobody, 2048}, {Owner{3}, 5120}, {Owner{5}, 25600}},
            .heapUnknown = "it was not asked for"};
}

// 128 MiB in blocks of 256 bytes: single blocks of the owners 1 to 60, free ones between them, and one long free run.
inline tools::MemoryMap cutUpMap(std::uint32_t runs = 100'000)
{
    tools::MemoryMap map = smallMap();
    tools::Picture& segment = map.segments.front();
    segment.entry.stInfoFromApp.ulBlkSize = 256;
    segment.entry.pubEndAddr = 0x95102800 + (128 << 20);
    segment.entry.ulTotalBlkNum = (128 << 20) / 256;
    segment.runs.clear();
    for (std::uint32_t number = 0; number + 1 < runs; ++number)
        segment.runs.push_back(
            {0x95102800 + number * 256, 1, number % 2 == 0, Owner(number % 2 == 0 ? 0 : number / 2 % 60 + 1)});
    segment.runs.push_back({0x95102800 + (runs - 1) * 256, segment.entry.ulTotalBlkNum - (runs - 1), true, kNobody});
    segment.entry.ulLargestBlkSize = segment.runs.back().blocks;
    segment.entry.ulTotalFreeBlkNum = segment.entry.ulTotalBlkNum - (runs - 1) / 2;
    return map;
}

} // namespace velmora::test
