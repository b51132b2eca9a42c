// The heap, of which no command shows anything: the manager prints it on the kernel log, and the log is read.
#pragma once

#include <string>
#include <vector>

#include <velmora/device.hpp>

namespace velmora::tools {

struct Heap {
    std::vector<HeapPiece> pieces; // none: it was not created
    std::string unknown;           // why nothing is known; empty where it is
};

// Has the manager print it. device: as --device has it. ConnectionError when the controller is gone.
Heap readHeap(Device& device, const std::string& name);

} // namespace velmora::tools
