#include "rows.hpp"

#include <algorithm>

#include "units.hpp"

namespace velmora::tools {

std::string Row::name() const
{
    return nameOf(entry.aubCFGID);
}

bool Row::isEmpty() const
{
    return name() == " ";
}

bool Row::isPlaced() const
{
    return entry.pubStartAddr != 0 && entry.ulSize != 0;
}

std::vector<Row> rows(Device& device)
{
    std::vector<Row> all;
    for (std::uint8_t number = 0; number < MM_MAX_MCT_NUM; ++number)
        if (const auto entry = device.tableRow(number))
            all.push_back({number, *entry});
    return all;
}

std::vector<Row> placedRows(Device& device)
{
    std::vector<Row> placed = rows(device);
    std::erase_if(placed, [](const Row& row) { return !row.isPlaced(); });
    return placed;
}

Row findRow(Device& device, const std::string& name)
{
    std::string there;
    for (const Row& row : rows(device)) {
        if (row.isEmpty())
            continue;
        if (row.name() == name || row.name() == "$" + name) {
            if (!row.isPlaced())
                throw Refusal("'" + shownName(row.name()) + "' has no memory yet: \"velmora-mm start\" comes first");
            return row;
        }
        there += (there.empty() ? "" : ", ") + shownName(row.name());
    }
    throw Refusal("the table of fixed segments has no row '" + shownName(name) + "'; it has " +
                  (there.empty() ? "none" : there));
}

std::string objectionToRow(Device& device, const Row& row)
{
    for (const SegmentUsage& segment : segments(device))
        if (segment.place == Place::Fixed && segment.name == row.name())
            return "a segment was created in '" + shownName(row.name()) +
                   "', and what keeps its free blocks lies there";
    return "";
}

} // namespace velmora::tools
