#include "commands.hpp"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "device_command.hpp"
#include "rows.hpp"
#include "table.hpp"
#include "units.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm mct - the table of fixed segments, as the manager has it

A line for each row: its name, size and place, and the handle of the segment that was created in it.
)";

constexpr const char* kExamples = R"(  velmora-mm mct
  velmora-mm mct --json
)";

// The handle of the segment in a row, if one was created.
std::optional<std::uint32_t> handleIn(const std::vector<SegmentUsage>& segments, const Row& row)
{
    const auto found = std::ranges::find_if(segments, [&](const SegmentUsage& segment) {
        return segment.place == Place::Fixed && segment.name == row.name();
    });
    return found == segments.end() ? std::nullopt : std::optional(static_cast<std::uint32_t>(found->handle));
}

Json rowJson(const Row& row, std::optional<std::uint32_t> handle)
{
    return {{"row", row.number},
            {"name", row.isEmpty() ? Json() : Json(row.name())},
            {"bytes", row.entry.ulSize},
            {"start", row.entry.pubStartAddr != 0 ? Json(addressText(row.entry.pubStartAddr)) : Json()},
            {"handle", handle ? Json(*handle) : Json()}};
}

std::vector<std::string> rowCells(const Row& row, std::optional<std::uint32_t> handle)
{
    if (row.isEmpty())
        return {std::to_string(row.number), "(empty)", "", "", ""};
    return {std::to_string(row.number), shownName(row.name()), bytesText(row.entry.ulSize),
            row.isPlaced() ? addressText(row.entry.pubStartAddr) : "not placed",
            handle ? std::to_string(*handle) : "-"};
}

} // namespace

int mct(const Words& words, std::ostream& out, std::ostream& errors)
{
    DeviceCommand command("mct", kDescription, deviceNotes("", kExamples));
    bool json = false, names = false;
    command.jsonFlag(json);
    command.flag("--names", names, "");
    return command.run(words, out, errors, [&](Device& device) {
        const std::vector<SegmentUsage> created = segments(device);
        Table table({">ROW", "NAME", ">SIZE", "START", ">HANDLE"});
        Json listed = listing("mct", 1);
        listed["rows"] = Json::array();
        for (const Row& row : rows(device)) {
            if (names && !row.isEmpty())
                out << shownName(row.name().substr(row.name().starts_with('$') ? 1 : 0)) << "\n";
            table.add(rowCells(row, handleIn(created, row)));
            listed["rows"].push_back(rowJson(row, handleIn(created, row)));
        }
        if (json)
            printListing(out, listed);
        else if (!names)
            table.print(out);
        return kDone;
    });
}

} // namespace velmora::tools
