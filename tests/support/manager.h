// What drives the manager directly shares, with GoogleTest and without: the default area, a load, looks at lists and
// locks.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "host/machine.h"
#include "kernel/mm/mm/MM_List.h"
#include "kernel/mm/mmi/MM_Interface.h"

namespace velmora::test {

// The module parameter of the product, and the managed area after a load with it.
inline constexpr std::string_view kAreaText = "95000000-9e000000";
inline constexpr U32 kAreaStart = 0x95100000;
inline constexpr U32 kAreaEnd = 0x9DF00000;
inline constexpr U32 kFixedBytes = 0x212000; // the default fixed segments
inline constexpr U32 kFloatStart = kAreaStart + kFixedBytes;

inline constexpr TMMLock kLocks[] = {search_lock, free_lock, push_lock, pop_lock};

// Module load with a parameter text; the module's answer.
inline S32 load(std::string_view text = kAreaText)
{
    std::memset(bigphysarea_info, 0, sizeof bigphysarea_info);
    text.copy(bigphysarea_info, sizeof bigphysarea_info - 1);
    return printer_mm_init();
}

inline bool anyLockHeld()
{
    return std::any_of(std::begin(kLocks), std::end(kLocks),
                       [](TMMLock lock) { return sim::machine().lockHeld(lock); });
}

inline TMMBlkStr* node(U32 address)
{
    return reinterpret_cast<TMMBlkStr*>(address);
}

// Puts a node behind the last one of a list.
template <class List> void append(List list, U32 address, U32 size)
{
    TMMBlkStr* const last = list.Tail();
    MM_WriteNode(node(address), {nullptr, last, size});
    (last != nullptr ? last->pstNext : list.Head()) = node(address);
    list.Tail() = node(address);
}

// True when a list can be followed through it: its header lies in memory that exists.
inline bool isNode(const TMMBlkStr* run)
{
    return run != nullptr && sim::Machine::exists(MM_Addr(run), offsetof(TMMBlkStr, aubdata));
}

// Names are four bytes, NULs behind shorter ones.
inline void setName(U8 (&id)[4], std::string_view name)
{
    std::memcpy(id, name.data(), std::min(name.size(), sizeof id));
}

} // namespace velmora::test
