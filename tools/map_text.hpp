// The map for a terminal: a letter for each owner, so that it reads without colours.
#pragma once

#include <string>

#include "tools/memory_map.hpp"

namespace velmora::tools {

constexpr unsigned kLeastColumns = 20, kMostColumns = 1000;
constexpr unsigned kMostRows = 1000;

struct MapStyle {
    unsigned columns = 80; // kLeastColumns to kMostColumns; no line is longer
    unsigned rows = 4;     // of a segment, at most
    bool colour = false;   // ANSI sequences
    bool asciiOnly = true; // else characters that UTF-8 has
};

std::string mapText(const MemoryMap& map, const MapStyle& style);

} // namespace velmora::tools
