// A layout of the memory: the area, and what each segment of a recording is given. As a TOML file, docs/planning.md describes it.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "plan_recording.hpp"

namespace velmora::tools {

struct PlanSegment {
    std::uint32_t bytes =
        0; // with owner map; 0: the heap, which takes what is left, or a fixed segment, whose size is the table's
    std::uint32_t block = 0;
    unsigned map = 0; // owner bits
    bool overflow = false;
    bool operator==(const PlanSegment&) const = default;
};

struct PlanLayout {
    std::uint32_t area = 0;            // managed bytes
    std::vector<PlanSegment> segments; // as in the recording
    bool operator==(const PlanLayout&) const = default;
};

// A layout file that cannot be understood; what() says where and why.
struct LayoutError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The recording's own.
PlanLayout layoutOf(const PlanRecording& recording);
// What a file says, on top of the recording's own. name: of the file, for sentences.
PlanLayout readLayout(const std::string& content, const std::string& name, const PlanRecording& recording);
// As a file.
std::string layoutText(const PlanLayout& layout, const PlanRecording& recording);
// Why this recording cannot be played on this layout at all; empty where it can.
std::string unfit(const PlanLayout& layout, const PlanRecording& recording);

} // namespace velmora::tools
