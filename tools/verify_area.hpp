// The rules of the area as a whole: segments apart and in their places, free memory between them, and the heap as far as it can
// be known.
#pragma once

#include "tools/verify_report.hpp"

namespace velmora::tools {

// Checks places, and the list of free memory, whose stretches lie between the float segments. kernelLog: messages as far as
// they could be read; they say where managed memory ends, and where the heap's pieces lie. Throws Error when the device refuses
// a mapping.
Report checkArea(Device& device, const std::vector<std::string>& kernelLog);

} // namespace velmora::tools
