// The segment table as the manager displays it on the kernel log.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace printjob {

// One row: a segment, or one piece of the heap.
struct DisplayRow {
    std::string name;
    unsigned handle = 0;
    std::uint32_t bytes = 0;
    std::uint32_t blockBytes = 0;
    std::uint32_t totalBlocks = 0;
    std::uint32_t allocatedBlocks = 0;
    std::uint32_t freeBlocks = 0;
    std::uint32_t largestRun = 0; // blocks

    std::uint64_t allocatedBytes() const { return std::uint64_t(allocatedBlocks) * blockBytes; }
};

// nullopt for a message that is no row of the display.
std::optional<DisplayRow> parseDisplayRow(const std::string& message);

// The rows among messages of the kernel log.
std::vector<DisplayRow> displayRows(const std::vector<std::string>& messages);

} // namespace printjob
