// The map as a page of its own: pictures to zoom and point at, nothing from elsewhere.
#pragma once

#include <string>

#include "tools/memory_map.hpp"

namespace velmora::tools {

// when: the moment that the map shows, in words.
std::string mapPage(const MemoryMap& map, const std::string& when);

} // namespace velmora::tools
