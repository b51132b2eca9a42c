// The list of free runs of a segment, found in the segment's own memory: no command says where it begins.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include <velmora/device.hpp>

#include "tools/area_memory.hpp"
#include "tools/owner_map.hpp"

namespace velmora::tools {

// What the table knows of a segment's free memory.
struct FreeCounts {
    std::uint32_t free = 0;               // blocks
    std::optional<std::uint32_t> largest; // run, in blocks; none: not known
};

// Every list that could be the segment's: it begins at a block whose header has none before it, is linked both ways in the
// order of addresses, no run touches the next or leaves the segment, and the runs have as many blocks, and as many in the
// longest, as the table says; with a map, no block of a run has an entry. At most two: one is the list; two cannot be told
// apart (released memory keeps the headers that it had, and two runs of one size that took turns look alike, unless whoever
// had the memory wrote over them); none means that the list is not whole, or that it changed while it was read.
//
// The manager keeps the link back of every run true, so a list is either all of the present or all of the past.
std::vector<std::vector<FreeRun>> freeLists(const BlockMemory& memory, const FreeCounts& counts, const OwnerMap* map);

} // namespace velmora::tools
