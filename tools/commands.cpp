#include "commands.hpp"

namespace velmora::tools {

std::span<const Command> commands()
{
    static constexpr Command kCommands[] = {
        {"status", "segments and how much of them is used", status},
        {"owners", "who holds how much of a segment", owners},
        {"script", "runs a session script, or replays a recording, on a simulated controller or a device", script},
        {"record", "writes down what programs ask of a controller", record},
        {"plan", "what a recording needs of the memory, and whether another layout would do", plan},
        {"run", "runs a program that knows only /dev/Velmora_MM on a simulated controller", run},
        {"area", "the module parameter \"bigphysarea\" for a reserved stretch of physical memory", area},
    };
    return kCommands;
}

} // namespace velmora::tools
