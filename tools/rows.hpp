// Rows of the table of fixed segments.
#pragma once

#include <string>
#include <vector>

#include "device_command.hpp"

namespace velmora::tools {

struct Row {
    unsigned number = 0; // 0 to 4
    MM_TMCTInfoWire entry = {};

    std::string name() const;
    bool isEmpty() const;  // it was deleted
    bool isPlaced() const; // it has memory
};

// All rows.
std::vector<Row> rows(Device& device);
// Those that have memory.
std::vector<Row> placedRows(Device& device);

// The row of a name, with or without its '$'. Refusal when there is none, or it has no memory yet.
Row findRow(Device& device, const std::string& name);

// Why a row had better be left alone: a segment was created in it, and its list lies there. A sentence, empty where there is
// none.
std::string objectionToRow(Device& device, const Row& row);

} // namespace velmora::tools
