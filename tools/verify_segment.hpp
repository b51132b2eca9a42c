// A segment's own rules: counters, list of free runs, owner map, stack.
#pragma once

#include "tools/verify_report.hpp"

namespace velmora::tools {

// Checks the segment of a handle; an empty report where there is none. What is reported was so twice while the manager did not
// touch the segment; one that changes each time that it is read is unchecked. Throws Error when the device refuses a mapping.
Report checkSegment(Device& device, std::uint32_t handle);

} // namespace velmora::tools
