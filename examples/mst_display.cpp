#include "mst_display.hpp"

#include <regex>

namespace printjob {

std::optional<DisplayRow> parseDisplayRow(const std::string& message)
{
    static const std::regex pattern(
        " (.{4}) *([0-9]+)- *([0-9a-f]+)- *([0-9a-f]+)- *([0-9a-f]+)- *([0-9a-f]+)- *([0-9a-f]+)- *([0-9a-f]+)"
        "- *[0-9a-f]+- *[0-9a-f]+- *[0-9a-f]+\\s*");
    std::smatch match;
    if (!std::regex_match(message, match, pattern))
        return std::nullopt;
    const auto hex = [&](unsigned column) {
        return static_cast<std::uint32_t>(std::stoul(match[column], nullptr, 16));
    };
    return DisplayRow{match[1], static_cast<unsigned>(std::stoul(match[2])), hex(3), hex(4), hex(5), hex(6), hex(7),
                      hex(8)};
}

std::vector<DisplayRow> displayRows(const std::vector<std::string>& messages)
{
    std::vector<DisplayRow> rows;
    for (const std::string& message : messages)
        if (const auto row = parseDisplayRow(message))
            rows.push_back(*row);
    return rows;
}

} // namespace printjob
