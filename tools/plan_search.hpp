// The smallest layout under which a recording is never refused anything.
//
// Whether a layout serves a recording is not monotonic in its sizes: a larger segment can cut its runs elsewhere and refuse what a
// smaller one served. So nothing is concluded from what was not replayed: the answer was replayed without a refusal, and with
// each of its sizes one step smaller, the others as they are, it was replayed and refused. Smaller layouts further away may exist.
#pragma once

#include <string>
#include <vector>

#include "plan_workers.hpp"

namespace velmora::tools {

struct PlanTry {
    PlanLayout layout;
    std::string verdict; // empty: nothing was refused
    bool operator==(const PlanTry&) const = default;
};

struct PlanSearch {
    bool found = false;
    PlanLayout smallest;        // by its area
    std::vector<PlanTry> tries; // in the order in which they were chosen
};

// Searches from a layout down: the area as a whole, and the bytes of each float segment; what is left to the heap is the rest.
// Block sizes, owner maps and overflow stay. A second search begins where nothing overflows.
PlanSearch searchSmallest(const PlanRecording& recording, const PlanLayout& layout, PlanWorkers& workers);

// What was refused first, or why the layout cannot be used, in words; empty where it is good.
std::string verdictOf(const PlanResult& result, const PlanRecording& recording);

} // namespace velmora::tools
