// The rules of the area as a whole: segments apart and in their places, free memory between them, and the heap as far as it can
// be known.
#pragma once

#include "tools/verify_report.hpp"

namespace velmora::tools {

// How far the heap's display on the kernel log can be trusted.
enum class HeapDisplay : std::uint8_t {
    Past,   // the heap may have been used since: what its list has instead cannot be told from a fault
    Present // it was printed for this check
};

// Checks places, and the list of free memory, whose stretches lie between the float segments. kernelLog: messages as far as
// they could be read; they say where managed memory ends, and where the heap's pieces lie. Throws Error when the device refuses
// a mapping.
Report checkArea(Device& device, const std::vector<std::string>& kernelLog, HeapDisplay display = HeapDisplay::Past);

} // namespace velmora::tools
