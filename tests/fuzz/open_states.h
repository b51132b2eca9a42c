// What a client may do to the default build that leaves it in a state from which anything may follow: a hang, an access to memory that
// does not exist, memory that is handed out twice. The fuzz targets leave these steps out, by these names, and nothing else. The
// guarded build has no such state: there every step is played.
#pragma once

#include <array>
#include <cstddef>

#include "kernel/mm/guard/MM_Guard.h"

namespace velmora::fuzz {

enum class Open : unsigned {
    NotStarted,
    StartedInUse,
    TableBuiltTwice,
    RowGone,
    OddLayout,
    HandleBeyondTable,
    WildRelease,
    WideOwner,
    WildFill,
    ClearedSegment,
    OverwrittenMemory,
    AnyMapping,
    SmallHeapBlocks,
    AreaIsNoRam,
    Count
};

struct OpenState {
    Open state;
    const char* name;
    const char* why; // it is open
};

inline constexpr std::array<OpenState, static_cast<std::size_t>(Open::Count)> kOpenStates = {{
    {Open::NotStarted, "not-started", "a command before the ones that come first follows a null table"},
    {Open::StartedInUse, "started-in-use", "a start of the library forgets what others hold and hands it out again"},
    {Open::TableBuiltTwice, "table-built-twice",
     "placed-row-counts: the fixed segments' end grows with each construction, at last past the area"},
    {Open::RowGone, "row-gone", "memory of a deleted row is zeroed, the lists of its segment with it"},
    {Open::OddLayout, "odd-layout",
     "sizes and block sizes that no layout holds lay blocks, headers and maps over other memory"},
    {Open::HandleBeyondTable, "handle-beyond-table", "a question by such a handle reads behind the segment table"},
    {Open::WildRelease, "wild-release",
     "lock-stays-held, map-disagrees, one-bit-second-release, stack-head-first: a release of what is not held, not "
     "whole, "
     "or not last pushed"},
    {Open::WideOwner, "wide-owner",
     "owner-contained: an owner that the map's entries cannot hold goes by neighbouring bits"},
    {Open::WildFill, "wild-fill", "fill-trusts: a fill writes wherever it is told"},
    {Open::ClearedSegment, "cleared-segment", "clearing a fixed segment that is in use zeroes its lists"},
    {Open::OverwrittenMemory, "overwritten-memory", "lists lie in free memory, which clients map and may write"},
    {Open::AnyMapping, "any-mapping", "any page of RAM may be mapped"},
    {Open::SmallHeapBlocks, "small-heap-blocks",
     "overflow-count: an overflow into a heap of smaller blocks has fewer bytes than were asked for"},
    {Open::AreaIsNoRam, "area-is-no-ram", "any two numbers are taken for an area"},
}};

// True for a step that is to be left out in this build.
constexpr bool isLeftOut(Open state)
{
    return kOpenStates[static_cast<std::size_t>(state)].state == state && !MM_Guarded;
}

} // namespace velmora::fuzz
