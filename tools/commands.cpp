#include "commands.hpp"

namespace velmora::tools {

std::span<const Command> commands()
{
    static constexpr Command kCommands[] = {
        {"status", "segments and how much of them is used", status},
        {"owners", "who holds how much of a segment", owners},
        {"map", "memory as it is now: segments to scale, free runs, owners; a page to zoom", map},
        {"watch", "segments as they fill and empty, on a terminal", watch},
        {"verify", "checks what the manager keeps in managed memory", verify},
        {"mst", "the table of segments", mst},
        {"mct", "the table of fixed segments", mct},
        {"log", "follows the kernel log", followLog},
        {"explain", "what the manager's messages in a kernel log mean", explain},
        {"start", "lays out the fixed segments and starts the library", start},
        {"create", "creates a segment", create},
        {"alloc", "allocates blocks of a segment", alloc},
        {"free", "releases blocks", freeBlocks},
        {"fill", "has the kernel fill memory with a byte", fill},
        {"collect", "releases all blocks of an owner", collect},
        {"read", "shows memory", readMemory},
        {"write", "writes memory", writeMemory},
        {"phys", "the physical address that a DMA engine takes", phys},
        {"clear", "fills the memory of a fixed segment with zeros", clearRow},
        {"delete", "takes a row out of the table of fixed segments", deleteRow},
        {"run", "runs a program that knows only /dev/Velmora_MM on a simulated controller", run},
        {"record", "writes down what programs ask of a controller", record},
        {"script", "runs a session script, or replays a recording, on a simulated controller or a device", script},
        {"area", "the module parameter \"bigphysarea\" for a reserved stretch of physical memory", area},
    };
    return kCommands;
}

} // namespace velmora::tools
