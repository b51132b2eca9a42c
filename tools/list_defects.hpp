// Where a list of free runs is broken.
#pragma once

#include <string>
#include <vector>

#include "tools/free_list.hpp"
#include "tools/verify_report.hpp"

namespace velmora::tools {

struct ListDefect {
    MM_TAddr address = 0; // of the run's header
    Rule rule{};
    std::string what; // as in Finding
};

// The headers of these runs, which are known to be the segment's, against what they have to be.
std::vector<ListDefect> comparedWith(const BlockMemory& memory, const std::vector<FreeRun>& runs);

// For a segment of whose free runs nothing is known, and in which freeLists() finds none: the one header that, were it
// different, would make a whole list with these counts; or that runs of such a list touch, or are not as long as the table
// has the longest. Empty where there is no such header, or several could be it.
std::vector<ListDefect> likelyDefects(const BlockMemory& memory, const FreeCounts& counts);

} // namespace velmora::tools
