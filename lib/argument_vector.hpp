// A command line as exec and posix_spawn take it.
#pragma once

#include <string>
#include <vector>

namespace velmora {

// Pointers to the words, which must stay as they are for as long as the result is used, and the null at their end.
inline std::vector<char*> argumentVector(std::vector<std::string>& words)
{
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    return arguments;
}

} // namespace velmora
