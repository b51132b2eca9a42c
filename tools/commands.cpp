#include "commands.hpp"

namespace velmora::tools {

std::span<const Command> commands()
{
    static constexpr Command kCommands[] = {
        {"status", "segments and how much of them is used", status},
        {"owners", "who holds how much of a segment", owners},
        {"script", "runs a session script on a simulated controller", script},
        {"run", "runs a program that knows only /dev/Velmora_MM on a simulated controller", run},
        {"map", "memory as it is now: segments to scale, free runs, owners; a page to zoom", map},
        {"watch", "segments as they fill and empty, on a terminal", watch},
        {"area", "the module parameter \"bigphysarea\" for a reserved stretch of physical memory", area},
    };
    return kCommands;
}

} // namespace velmora::tools
