// The kernel's proc layer of 2.6.35, as far as a read_proc entry sees it.
#pragma once

#include <algorithm>
#include <string>

#include "kernel/mm/mmi/MM_Interface.h"

namespace velmora::sim {

// What a reader of the manager's proc file gets at an offset: the layer has the entry write into a page and cuts out
// what was asked for.
inline std::string readProcFile(U32 offset, U32 count)
{
    if (count == 0)
        return {};
    char page[4096];
    char* start = nullptr;
    S32 eof = 0;
    const S32 written = read_velmora_mm(page, &start, static_cast<S32>(offset), static_cast<S32>(count), &eof, nullptr);
    if (written <= 0 || offset >= static_cast<U32>(written))
        return {};
    return {page + offset, std::min<std::size_t>(static_cast<U32>(written) - offset, count)};
}

} // namespace velmora::sim
