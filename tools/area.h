// velmora-mm area: the module parameter "bigphysarea" for a reserved stretch of physical memory, and back.
#pragma once

#include <ostream>
#include <string_view>
#include <vector>

namespace velmora::tools {

// Runs the subcommand on the words after its name. Exit status: 0 the area is good, 1 the manager or the kernel could not use
// it, 2 unusable arguments.
int area(const std::vector<std::string_view>& words, std::ostream& out, std::ostream& errors);

} // namespace velmora::tools
