// The simulated machine's device as the client library sees it.
#pragma once

#include <memory>
#include <string>

#include "../lib/device.hpp"

namespace velmora::sim {

// Powers the machine on and loads the manager over [start, end] kernel virtual addresses (one mebibyte at each end is
// kept out of the managed area). Throws Error when the load fails.
void bootController(TAddr start = 0x95000000, TAddr end = 0x9E000000);

// Opens the device of the machine. Channels may be used by several threads: commands run one at a time. A
// command that hangs or touches memory that does not exist throws std::runtime_error with a report.
std::unique_ptr<Channel> openDevice();

} // namespace velmora::sim
