// The manager's module data as a whole: listed, put back to what they are before a load, and written out.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include <velmora_mm/velmora_mm.h>

namespace velmora::sim {

// A variable of the manager.
struct ManagerVariable {
    const char* name;
    void* place;
    std::size_t bytes;
    bool dumped; // the state dump shows what it holds
};

// Every variable of the manager but the run index's own, which say nothing that the lists do not.
// tests/objects/check_state.sh compares the list with the manager's objects.
std::span<const ManagerVariable> managerVariables();

// Every variable of the manager as the module's image has it.
void resetManagerState();

// The state dump of docs/session-format.md, without the closing answer line.
std::string dumpManagerState();

// True when the value is the address of one of the manager's own tables.
bool isManagerTable(U32 address);

// Overwrites with 0 every aligned word that is the address of one of the manager's allocation or release
// routines: where those lie differs from build to build.
void hideRoutineAddresses(std::uint8_t* bytes, std::size_t count);

} // namespace velmora::sim
