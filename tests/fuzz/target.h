// What a fuzz target offers to the two programs that are made of it: one that plays files and random inputs
// (run_target.cpp), and libFuzzer's (one_input.cpp).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace velmora::fuzz {

extern const char* const kTargetName; // the program's
extern const char* const kTargetDoes; // one line for its help

// Plays an input: what was wrong, empty when nothing was.
std::string playInput(const std::uint8_t* data, std::size_t size);

} // namespace velmora::fuzz
