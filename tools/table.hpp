// A table for people: columns as wide as what stands in them.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace velmora::tools {

class Table
{
public:
    // Titles of the columns. A title that begins with '>' (which is not shown) has its column flush right.
    explicit Table(std::vector<std::string> titles);

    // As many cells as there are titles.
    void add(std::vector<std::string> cells);
    bool empty() const { return rows_.size() == 1; }

    // A line for the titles and one for each row, two spaces between columns, none at the end of a line.
    void print(std::ostream& out) const;

private:
    std::vector<bool> right_;
    std::vector<std::vector<std::string>> rows_; // the titles first
};

} // namespace velmora::tools
