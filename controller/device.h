// The simulated controller: switched on, booted, and its device as the client library sees it.
#pragma once

#include <memory>
#include <string>

#include <velmora/device.hpp>

namespace velmora::sim {

// Switches the controller on: a cold machine, and the manager's data as its image has them. Nothing is loaded yet.
// ramBytes and what is thrown: as for Machine::powerOn.
void powerOn(std::uint32_t ramBytes = 256U << 20);

// Switches the controller on and loads the manager over [start, end] kernel virtual addresses (one mebibyte at each end
// is kept out of the managed area). Comes before openDevice(). Throws Error when the load fails, and as powerOn().
void bootController(TAddr start = 0x95000000, TAddr end = 0x9E000000, std::uint32_t ramBytes = 256U << 20);

// Opens the device of the controller; bootController() comes first, otherwise this throws std::logic_error, and so does
// a command on a controller that was switched on anew and not booted. Channels may be used by several threads: commands
// run one at a time. A command that hangs or touches memory that does not exist throws std::runtime_error with a report.
std::unique_ptr<Channel> openDevice();

} // namespace velmora::sim
