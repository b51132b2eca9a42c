// The manager's functions by name, callable with 32-bit arguments.
#pragma once

#include <string_view>
#include <vector>

#include <velmora_mm/velmora_mm.h>

namespace velmora::sim {

struct CallableFunction {
    std::string_view name;
    unsigned arguments;
    bool returnsNothing;
    U32 (*invoke)(const U32* arguments); // 0 where nothing is returned
};

// Null for an unknown name.
const CallableFunction* findFunction(std::string_view name);

} // namespace velmora::sim
