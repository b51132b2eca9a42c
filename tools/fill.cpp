#include "commands.hpp"

#include "device_command.hpp"
#include "memory.hpp"
#include "units.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm fill - has the kernel fill memory with a byte
)";

constexpr const char* kNotes =
    R"(The manager writes wherever it is told, and a controller does not survive an address without memory. So anything
but allocated blocks of a segment, and rows of the fixed table without one, is refused unless --force is given; memory
that does not exist is refused always.
)";

constexpr const char* kExamples = R"(  velmora-mm fill 0x95b00000 64K 0
  velmora-mm fill PAGE+1M 4K 0xff
)";

} // namespace

int fill(const Words& words, std::ostream& out, std::ostream& errors)
{
    DeviceCommand command("fill", kDescription, deviceNotes(kNotes, kExamples));
    std::string where;
    std::uint32_t bytes = 0;
    std::uint8_t value = 0;
    bool force = false;
    command.argument("WHERE", into(where), kWhereHelp);
    command.argument("BYTES", sizeInto(bytes), "how many: 4096, 64K, 8MiB");
    command.argument(
        "VALUE",
        [&](const std::string& text) {
            const auto number = parseNumber(text);
            if (!number || *number > 0xFF)
                throw UsageError("'" + text + "' is no byte: 0 to 255 was expected");
            value = static_cast<std::uint8_t>(*number);
        },
        "the byte, 0 to 255");
    command.forceFlag(force);
    return command.run(words, out, errors, [&](Device& device) {
        const MM_TAddr start = findAddress(device, where);
        requireMemory(device, start, bytes);
        requireNone(objectionToWriting(device, start, bytes), force);
        device.fill(start, value, bytes);
        return kDone;
    });
}

} // namespace velmora::tools
