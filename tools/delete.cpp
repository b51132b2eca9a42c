#include "commands.hpp"

#include <algorithm>

#include "device_command.hpp"
#include "memory.hpp"
#include "rows.hpp"
#include "units.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm delete - takes a row out of the table of fixed segments

NAME is a row of the fixed table (see mct), with or without its $. Its memory is filled with zeros and belongs to
nobody until the module is loaded anew.
)";

constexpr const char* kNotes =
    R"(Refused without --force: a row in which a segment was created, which would stay in use. Segments that create makes
cannot be deleted: they last until the next start.
)";

constexpr const char* kExamples = R"(  velmora-mm delete FIL
)";

} // namespace

int deleteRow(const Words& words, std::ostream& out, std::ostream& errors)
{
    DeviceCommand command("delete", kDescription, deviceNotes(kNotes, kExamples));
    std::string name;
    bool force = false;
    command.argument("NAME", into(name), "a row of the fixed table");
    command.forceFlag(force);
    return command.run(words, out, errors, [&](Device& device) {
        const Row row = findRow(device, name);
        requireNone(objectionToRow(device, row), force);
        device.deleteFixedSegment(row.name());
        if (std::ranges::any_of(rows(device), [&](const Row& now) { return now.name() == row.name(); }))
            throw Refusal("the manager left '" + shownName(row.name()) + "' as it was; the kernel log says why");
        out << shownName(row.name()) << " is deleted\n";
        return kDone;
    });
}

} // namespace velmora::tools
