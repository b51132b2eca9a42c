// The commands of velmora-mm. Each stands in a file with its name and is called as Command::run says.
#pragma once

#include <span>

#include "tools/command.hpp"

namespace velmora::tools {

int status(const Words& words, std::ostream& out, std::ostream& errors);
int owners(const Words& words, std::ostream& out, std::ostream& errors);
int map(const Words& words, std::ostream& out, std::ostream& errors);
int watch(const Words& words, std::ostream& out, std::ostream& errors);
int verify(const Words& words, std::ostream& out, std::ostream& errors);
int mst(const Words& words, std::ostream& out, std::ostream& errors);
int mct(const Words& words, std::ostream& out, std::ostream& errors);
int followLog(const Words& words, std::ostream& out, std::ostream& errors);
int explain(const Words& words, std::ostream& out, std::ostream& errors);
int start(const Words& words, std::ostream& out, std::ostream& errors);
int create(const Words& words, std::ostream& out, std::ostream& errors);
int alloc(const Words& words, std::ostream& out, std::ostream& errors);
int freeBlocks(const Words& words, std::ostream& out, std::ostream& errors);
int fill(const Words& words, std::ostream& out, std::ostream& errors);
int collect(const Words& words, std::ostream& out, std::ostream& errors);
int readMemory(const Words& words, std::ostream& out, std::ostream& errors);
int writeMemory(const Words& words, std::ostream& out, std::ostream& errors);
int phys(const Words& words, std::ostream& out, std::ostream& errors);
int clearRow(const Words& words, std::ostream& out, std::ostream& errors);
int deleteRow(const Words& words, std::ostream& out, std::ostream& errors);
int run(const Words& words, std::ostream& out, std::ostream& errors);
int record(const Words& words, std::ostream& out, std::ostream& errors);
int script(const Words& words, std::ostream& out, std::ostream& errors);
int area(const Words& words, std::ostream& out, std::ostream& errors);

// All of them, in the order of the overview.
std::span<const Command> commands();

} // namespace velmora::tools
