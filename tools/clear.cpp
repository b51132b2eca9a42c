#include "commands.hpp"

#include "device_command.hpp"
#include "memory.hpp"
#include "rows.hpp"
#include "units.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm clear - fills the memory of a fixed segment with zeros

NAME is a row of the fixed table (see mct), with or without its $; ALL stands for all of them but $MCT, $UEV
and $RJL.
)";

constexpr const char* kNotes =
    R"(Refused without --force: a row in which a segment was created, since what keeps its free blocks lies in that
memory. The manager itself reports success whatever happened, so the row is looked for first.
)";

constexpr const char* kExamples = R"(  velmora-mm clear JCB
  velmora-mm clear ALL
)";

bool isSpared(const Row& row)
{
    return row.name() == "$MCT" || row.name() == "$UEV" || row.name() == "$RJL";
}

std::vector<Row> rowsToClear(Device& device, const std::string& name)
{
    if (name != "ALL" && name != "$ALL")
        return {findRow(device, name)};
    std::vector<Row> all = rows(device);
    std::erase_if(all, [](const Row& row) { return row.isEmpty() || isSpared(row); });
    for (const Row& row : all)
        if (!row.isPlaced())
            return {findRow(device, row.name())}; // which says why not
    return all;
}

} // namespace

int clearRow(const Words& words, std::ostream& out, std::ostream& errors)
{
    DeviceCommand command("clear", kDescription, deviceNotes(kNotes, kExamples));
    std::string name;
    bool force = false;
    command.argument("NAME", into(name), "a row of the fixed table, or ALL");
    command.forceFlag(force);
    return command.run(words, out, errors, [&](Device& device) {
        const std::vector<Row> cleared = rowsToClear(device, name);
        for (const Row& row : cleared)
            requireNone(objectionToRow(device, row), force);
        device.clearFixedSegment(name == "ALL" || name == "$ALL" ? "$ALL" : cleared.front().name());
        for (const Row& row : cleared)
            out << shownName(row.name()) << ": " << bytesText(row.entry.ulSize) << " at "
                << addressText(row.entry.pubStartAddr) << " are zeros\n";
        return kDone;
    });
}

} // namespace velmora::tools
