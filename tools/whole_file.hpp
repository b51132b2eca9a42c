// A file that appears whole or not at all: it is written beside its place and takes it at the end.
#pragma once

#include <string>

namespace velmora::tools {

// Throws std::runtime_error with a sentence; then what stood at path before still does.
void writeWholeFile(const std::string& path, const std::string& content);

// Everything in a file, or on standard input where the name is "-". Throws std::runtime_error with a sentence.
std::string readWholeFile(const std::string& path);

} // namespace velmora::tools
