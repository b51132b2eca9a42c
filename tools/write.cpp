#include "commands.hpp"

#include <cstring>

#include "device_command.hpp"
#include "memory.hpp"
#include "whole_file.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm write - writes memory through a mapping

The bytes of a file, or of standard input, as they are.
)";

constexpr const char* kNotes =
    R"(Anything but allocated blocks of a segment, and rows of the fixed table without one, is refused unless --force is
given: lists and owner maps lie in the same memory. Memory that does not exist is refused always.
)";

constexpr const char* kExamples = R"(  velmora-mm write 0x95b00000 page.bin
  printf 'hello' | velmora-mm write PAGE+64K
)";

} // namespace

int writeMemory(const Words& words, std::ostream& out, std::ostream& errors)
{
    DeviceCommand command("write", kDescription, deviceNotes(kNotes, kExamples));
    std::string where, file = "-";
    bool force = false;
    command.argument("WHERE", into(where), kWhereHelp);
    command.optionalArgument("FILE", into(file), "what to write; default -, standard input");
    command.forceFlag(force);
    return command.run(words, out, errors, [&](Device& device) {
        const MM_TAddr start = findAddress(device, where);
        const std::string content = readWholeFile(file);
        if (content.empty())
            return kDone;
        if (content.size() > UINT32_MAX)
            throw Refusal("the file is larger than any memory");
        const auto bytes = static_cast<std::uint32_t>(content.size());
        requireMemory(device, start, bytes);
        requireNone(objectionToWriting(device, start, bytes), force);
        std::memcpy(device.map(start, bytes).bytes().data(), content.data(), content.size());
        return kDone;
    });
}

} // namespace velmora::tools
