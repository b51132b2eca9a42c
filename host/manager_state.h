// The manager's module data as a whole: put back to what they are before a load, and written out.
#pragma once

#include <cstdint>
#include <string>

#include <velmora_mm/velmora_mm.h>

namespace velmora::sim {

// Every variable of the manager as the module's image has it.
void resetManagerState();

// The state dump of docs/session-format.md, without the closing answer line.
std::string dumpManagerState();

// True when the value is the address of one of the manager's own tables.
bool isManagerTable(U32 address);

// Overwrites with 0 every aligned word that is the address of one of the manager's allocation or release
// routines: where those lie differs from build to build.
void hideRoutineAddresses(std::uint8_t* bytes, std::size_t count);

// Text between quotes as session scripts write it: \n \r \t \" \\ and \xNN.
std::string escaped(const std::string& bytes);

} // namespace velmora::sim
