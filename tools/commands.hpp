// The commands of velmora-mm. Each stands in a file with its name and is called as Command::run says.
#pragma once

#include <span>

#include "tools/command.hpp"

namespace velmora::tools {

int status(const Words& words, std::ostream& out, std::ostream& errors);
int owners(const Words& words, std::ostream& out, std::ostream& errors);
int script(const Words& words, std::ostream& out, std::ostream& errors);
int record(const Words& words, std::ostream& out, std::ostream& errors);
int plan(const Words& words, std::ostream& out, std::ostream& errors);
int run(const Words& words, std::ostream& out, std::ostream& errors);
int area(const Words& words, std::ostream& out, std::ostream& errors);

// All of them, in the order of the overview.
std::span<const Command> commands();

} // namespace velmora::tools
