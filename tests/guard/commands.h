// The device's commands on the simulated controller, as a process sends them: a record in user memory and a number.
#pragma once

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>

#include "controller/device.h"
#include "host/machine.h"
#include "kernel/mm/mm/MM_Core.h"
#include "kernel/mm/mmi/MM_Interface.h"

namespace velmora::guard {

using sim::machine;

// Runs an entry of the manager, which must come back.
template <class Entry> int entry(Entry run)
{
    const sim::Outcome outcome = machine().run([&] { return static_cast<U32>(run()); });
    if (!outcome.returned())
        throw std::runtime_error(outcome.describe("an entry of the manager"));
    for (const TMMLock lock : {search_lock, free_lock, push_lock, pop_lock})
        if (machine().lockHeld(lock))
            throw std::runtime_error("a lock stayed held");
    return static_cast<int>(outcome.value);
}

// Sends a command; the record is what came back.
template <class Record> int command(U32 number, Record& record)
{
    std::memcpy(sim::Machine::at(sim::kScratch), &record, sizeof record);
    const int answer = entry([=] { return Velmora_MM_ioctl(number, sim::kScratch); });
    std::memcpy(&record, sim::Machine::at(sim::kScratch), sizeof record);
    return answer;
}

inline int enter(TMMInitOption option = MM_CONSTRUCT_DEFAULT_MCT)
{
    return command(MM_CMD_ENTRY, option);
}

inline int startLibrary(U32 option = SM_BKUP_OK)
{
    TLibEntryInfo info{option, 0};
    return command(MM_CMD_LIB_ENTRY, info);
}

struct Shape {
    const char* name;
    U32 bytes, blockBytes;
    U8 map = 0, discipline = LINKEDLIST, type = FLOAT, semaphore = YES, overflow = 0;
};

inline int create(const Shape& shape, U32* handle = nullptr)
{
    TSegInfoFromApp info{};
    std::memcpy(info.aubSegID, shape.name, std::min(std::strlen(shape.name), sizeof info.aubSegID));
    info.ubType = shape.type;
    info.ubSegDSType = shape.discipline;
    info.ubMap = shape.map;
    info.ubSemaphore = shape.semaphore;
    info.ulSegSize = shape.bytes;
    info.ulBlkSize = shape.blockBytes;
    info.ubVM = shape.overflow;
    const int answer = command(MM_CMD_CREATE_SEGMENT, info);
    if (handle != nullptr)
        *handle = info.hulHandle;
    return answer;
}

// The address; 0 no room, all ones refused.
inline U32 allocate(U32 handle, U32 bytes, U8 owner)
{
    TMallocInfo info{handle, bytes, owner, {}, 0};
    command(MM_CMD_MALLOC, info);
    return info.pubStart;
}

inline int release(U32 handle, U32 address, U32 bytes)
{
    TFreeInfo info{handle, address, bytes};
    return command(MM_CMD_FREE, info);
}

inline int fill(U32 address, int byte, U32 bytes)
{
    TMemsetInfo info{address, byte, bytes};
    return command(MM_CMD_MEMSET, info);
}

inline int collect(U32 handle, U8 owner)
{
    TCollectGarbageInfo info{handle, owner, {}};
    return command(MM_CMD_COLLECT_GARBAGE, info);
}

} // namespace velmora::guard
