// Processes that keep the rules, for the default build as well as the guarded one.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "../board.hpp"
#include "ledger.hpp"

namespace target::hostile {

// Allocates in the segments and the heap, fills each block with a pattern of its own, looks at it before it gives the block
// back. The owner is the process's alone. Throws at the first block that is not as it was left, and gives everything back at
// the end. The ledger counts its steps.
void behave(std::uint32_t seed, std::uint8_t owner, const std::vector<std::uint32_t>& segments,
            std::chrono::steady_clock::time_point until, Ledger& ledger);

} // namespace target::hostile
