// A plan as one HTML page without anything from elsewhere: the use of each segment over the recording's lines, as SVG.
#pragma once

#include <string>

#include "plan_search.hpp"

namespace velmora::tools {

// What is shown of one layout.
struct PlanChart {
    std::string title;
    const PlanLayout& layout;
    const PlanResult& result; // with moments
};

std::string planPage(const PlanRecording& recording, const std::string& name, const std::vector<PlanChart>& charts,
                     const PlanSearch* search);

} // namespace velmora::tools
