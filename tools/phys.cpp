#include "commands.hpp"

#include <nlohmann/json.hpp>

#include "device_command.hpp"
#include "memory.hpp"
#include "units.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm phys - the physical address that a DMA engine takes
)";

constexpr const char* kNotes = R"(The manager computes it and does not look whether there is memory.
)";

constexpr const char* kExamples = R"(  velmora-mm phys 0x95b00000
  velmora-mm phys PAGE+64K
)";

} // namespace

int phys(const Words& words, std::ostream& out, std::ostream& errors)
{
    DeviceCommand command("phys", kDescription, deviceNotes(kNotes, kExamples));
    std::string where;
    bool json = false;
    command.argument("WHERE", into(where), kWhereHelp);
    command.jsonFlag(json);
    return command.run(words, out, errors, [&](Device& device) {
        const MM_TAddr address = findAddress(device, where);
        const std::string physical = addressText(device.physicalAddress(address));
        if (json) {
            Json answer = listing("phys", 1);
            answer["address"] = addressText(address);
            answer["physical"] = physical;
            printListing(out, answer);
        } else {
            out << physical << "\n";
        }
        return kDone;
    });
}

} // namespace velmora::tools
