// Which of the process's mappings are the device's. The kernel keeps the list, through fork, munmap and everything else.
#pragma once

#include <cstddef>
#include <cstdint>

namespace velmora::preload {

// From the first mapping of the device on there may be some.
void noteMapping();

// Is the device mapped anywhere between start and start + bytes? shared: a private mapping does not count. Costs nothing while
// there was no mapping of the device; otherwise reads the kernel's list. Keeps errno.
bool isMapping(const void* start, std::size_t bytes, bool shared);

} // namespace velmora::preload
