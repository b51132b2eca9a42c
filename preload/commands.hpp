// Commands and mappings, over a connection that belongs to this process alone: parent and child may share a descriptor of the
// device, and would read each other's answers on it.
//
// Threads take turns. A fork has a connection of its own from its first command on; a vfork, which is the same process to
// everybody but the kernel, uses its parent's.
#pragma once

#include <cstdint>

namespace velmora::preload {

// Makes the connection, if there is none yet. 0 or a negative code.
int prepareCommands();

// The manager's answer; -ENODEV when the controller is gone, and what the kernel says when there can be no connection to it
// (-EMFILE). Copies from and to the argument end at the first byte that is not there.
int command(std::uint32_t number, void* argument);

// A yes of the manager to a mapping: 0, and a descriptor to map at offset, the caller's to close. Otherwise as command().
struct Granted {
    int descriptor;
    std::uint64_t offset;
};
int map(std::uint32_t pageOffset, std::uint32_t bytes, bool sync, Granted& granted);

} // namespace velmora::preload
