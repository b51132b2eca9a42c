#include "table.hpp"

#include <algorithm>

namespace velmora::tools {

Table::Table(std::vector<std::string> titles)
{
    for (std::string& title : titles) {
        right_.push_back(title.starts_with('>'));
        if (right_.back())
            title.erase(0, 1);
    }
    rows_.push_back(std::move(titles));
}

void Table::add(std::vector<std::string> cells)
{
    rows_.push_back(std::move(cells));
}

void Table::print(std::ostream& out) const
{
    std::vector<std::size_t> widths(right_.size());
    for (const auto& row : rows_)
        for (std::size_t column = 0; column < widths.size(); ++column)
            widths[column] = std::max(widths[column], row[column].size());
    for (const auto& row : rows_) {
        std::string line;
        for (std::size_t column = 0; column < widths.size(); ++column) {
            const std::string space(widths[column] - row[column].size(), ' ');
            line += (column == 0 ? "" : "  ") + (right_[column] ? space + row[column] : row[column] + space);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        out << line << "\n";
    }
}

} // namespace velmora::tools
