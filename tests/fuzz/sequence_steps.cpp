// What correct clients do.
#include "sequence.h"

#include <algorithm>
#include <cstring>

#include "kernel/mm/mm/MM_RunIndex.h"
#include "weights.h"

namespace velmora::fuzz {

using namespace test;
using sim::Machine;
using sim::machine;

namespace {

constexpr unsigned long kCollectTouchLimit = 50'000'000; // a collection is many releases

} // namespace

void Sequence::allocate(Segment& segment, const Record& record)
{
    const U32 handle = segment.handle == HEAPHANDLE && (record.how & 64) != 0 ? U32(HEAPHANDLE_ALIAS) : segment.handle;
    const U8 owner = ownerFor(segment, record.owner);
    U32 blocks = chosen(Weights::requests, record.how % 32).blocks(stSegTable[segment.handle], record.number);
    U32 address;
    if ((record.how & 128) != 0) {
        const U32 blockBytes = stSegTable[segment.handle].stInfoFromApp.ulBlkSize;
        const U32 bytes = blocks * blockBytes - record.number % blockBytes;
        blocks = (blockBytes - 1 + bytes) / blockBytes;
        address = perform("MM_Malloc", segment.handle, {handle, bytes, owner},
                          [=] { return MM_Malloc(handle, bytes, owner); });
    } else {
        address = perform("MM_AllocBlock", segment.handle, {handle, blocks, owner},
                          [=] { return MM_AllocBlock(handle, blocks, owner); });
    }
    give(segment, address, blocks, owner);
}

// Notes what a client was given; what overflowed belongs to the heap.
void Sequence::give(Segment& segment, U32 address, U32 blocks, U8 owner)
{
    if (address == 0 || address == MM_FAILED || blocks == 0)
        return;
    Segment* holder = &segment;
    if (segment.handle != HEAPHANDLE && MM_CheckHeapArea(MM_At(address)))
        holder = segmentOf(HEAPHANDLE);
    if (holder != nullptr)
        holder->grants.push_back({address, blocks, holder == &segment ? owner : U8(0)});
}

// How: bits 0 and 1 all or which part, bit 2 by bytes, bit 3 under another handle, bit 4 the youngest grant.
void Sequence::release(Segment& segment, const Record& record)
{
    if (segment.grants.empty())
        return;
    const std::size_t last = segment.grants.size() - 1;
    const std::size_t index = segment.stack || (record.how & 16) != 0 ? last : record.number % (last + 1);
    const Grant grant = segment.grants[index];
    U32 first = 0;
    U32 blocks = grant.blocks;
    if (!segment.stack && (record.how & 3) == 3) {
        first = record.number / 256 % grant.blocks;
        blocks = 1 + record.number / 1024 % (grant.blocks - first);
    } else if (!segment.stack && (record.how & 3) == 2) {
        blocks = 1 + record.number / 256 % grant.blocks;
    }
    releaseGrant(segment, index, first, blocks, record.how);
}

void Sequence::releaseGrant(Segment& segment, std::size_t index, U32 first, U32 blocks, unsigned how)
{
    const Grant grant = segment.grants[index];
    const U32 unit = unitBytes(segment.handle);
    const U32 address = grant.address + first * unit;
    U32 handle = segment.handle;
    if (handle == HEAPHANDLE && (how & 8) != 0) // heap memory may be released under any block segment's handle
        handle = segments_[0].stack ? U32(HEAPHANDLE_ALIAS) : segments_[0].handle;

    if ((how & 4) != 0) {
        const U32 blockBytes = stSegTable[MM_RealHandle(handle)].stInfoFromApp.ulBlkSize;
        const U32 bytes = (blocks - 1) * blockBytes + 1 + (how * 37 + blocks) % blockBytes;
        perform("MM_Free", segment.handle, {handle, address, bytes},
                [=] { return MM_Free(handle, MM_At(address), bytes); });
    } else {
        perform("MM_FreeBlock", segment.handle, {handle, address, blocks},
                [=] { return MM_FreeBlock(handle, MM_At(address), blocks); });
    }

    lastReleased_ = {address, blocks, grant.owner};
    segment.grants[index] = segment.grants.back();
    segment.grants.pop_back();
    if (first > 0)
        segment.grants.push_back({grant.address, first, grant.owner});
    if (first + blocks < grant.blocks)
        segment.grants.push_back({address + blocks * unit, grant.blocks - first - blocks, grant.owner});
}

// A claim that leaves a whole list behind: the end of a free run, or a whole one.
void Sequence::claim(Segment& segment, const Record& record)
{
    const U32 handle = segment.handle;
    const Run run =
        segment.stack || handle == HEAPHANDLE ? Run{0, 0} : freeRun(handle, record.number % 32, record.how % 2 == 0);
    if (run.blocks == 0)
        return;
    const bool whole = record.how % 4 == 0;
    const U32 blocks = whole ? run.blocks : 1 + record.number / 32 % run.blocks;
    const U32 address = run.address + (run.blocks - blocks) * unitBytes(handle);
    if (!whole && blocks == run.blocks)
        return;
    const U32 result = perform("MM_ReallocBlock", handle, {handle, address, blocks},
                               [=] { return MM_ReallocBlock(handle, MM_At(address), blocks); });
    // The start of the segment, and what passes its end, is refused.
    if (result == ENOERR)
        segment.grants.push_back({address, blocks, 0});
}

// Clean-up counts blocks from the segment's end: a part of a block there would shift what it releases.
bool Sequence::canBeCleaned(U32 handle)
{
    const TMMSegInfo& seg = stSegTable[handle];
    U32 bytes = MM_Addr(seg.pubEndAddr) - MM_Addr(seg.pubStartAddr);
    if (handle == HEAPHANDLE) {
        bytes = 0;
        for (unsigned i = 0; i < MAX_PIECE_NUM && stSegStartAddr.aulHeapAddr[i] != MM_UNUSED_PIECE; ++i)
            bytes |= stSegEndAddr.aulHeapAddr[i] - stSegStartAddr.aulHeapAddr[i];
    }
    return bytes % unitBytes(handle) == 0;
}

void Sequence::collect(Segment& segment, const Record& record)
{
    const U32 handle = segment.handle;
    const U8 mapBits = stSegTable[handle].stInfoFromApp.ubMap;
    if (mapBits == 0 || (ordinary_ && !canBeCleaned(handle)))
        return;
    // Any ID; one that is wider than the entries goes by their neighbours and releases what nobody allocated.
    const U8 any = ordinary_ ? record.owner & ((1U << mapBits) - 1) : record.owner;
    const U8 owner = record.how < 16 ? any : ownerFor(segment, record.owner);
    machine().faults.touchLimit = kCollectTouchLimit;
    perform("MM_CollectGarbage", handle, {handle, owner}, [=] { return MM_CollectGarbage(handle, owner); });
    forgetReleased(segment);
}

void Sequence::permanent(Segment&, const Record& record)
{
    Segment* const heap = segmentOf(HEAPHANDLE);
    if (heap == nullptr || heap->stack || stSegTable[HEAPHANDLE].stInfoFromApp.ubMap != 8)
        return;
    if (record.how % 16 == 0) {
        if (ordinary_ && !canBeCleaned(HEAPHANDLE))
            return;
        machine().faults.touchLimit = kCollectTouchLimit;
        perform("MM_RlsAllPermanentBlk", HEAPHANDLE, {}, [] { return MM_RlsAllPermanentBlk(), 0; });
        forgetReleased(*heap);
        return;
    }
    if (heap->grants.empty())
        return;
    const std::size_t index = record.number % heap->grants.size();
    Grant& grant = heap->grants[index];
    const U32 address = grant.address;
    const U32 blocks = grant.blocks;
    if (record.how % 4 == 1) {
        perform("MM_CheckPermanentBlk", HEAPHANDLE, {address, blocks},
                [=] { return MM_CheckPermanentBlk(address, blocks); });
    } else if (grant.owner == 254) {
        perform("MM_ReleasePermanentBlk", HEAPHANDLE, {address, blocks},
                [=] { return MM_ReleasePermanentBlk(address, blocks), 0; });
        heap->grants.erase(heap->grants.begin() + static_cast<std::ptrdiff_t>(index));
    } else {
        grant.owner = 254;
        perform("MM_SetPermanentBlk", HEAPHANDLE, {address, blocks},
                [=] { return MM_SetPermanentBlk(address, blocks), 0; });
    }
}

// A client writes all over its memory: also what looks like the header of a free run.
void Sequence::write(Segment& segment, const Record& record)
{
    if (segment.grants.empty() || !holdsHeaders(segment.handle))
        return;
    const Grant grant = segment.grants[record.number % segment.grants.size()];
    const U32 bytes = std::min<U32>(grant.blocks * unitBytes(segment.handle), 4096);
    if (!Machine::exists(grant.address, bytes))
        return;
    if (record.how % 4 == 0) {
        const TMemsetInfo info{grant.address, record.owner, bytes};
        perform("MM_CMD_MEMSET", segment.handle, {grant.address, record.owner, bytes}, [=] {
            std::memcpy(MM_At(sim::kScratch), &info, sizeof info);
            return Velmora_MM_ioctl(MM_CMD_MEMSET, sim::kScratch);
        });
        return;
    }
    const U32 word = record.how % 4 == 1 ? grant.address : record.number * 0x9E3779B1U;
    const bool announced = !ordinary_; // somebody else may hold a header there by mistake
    perform("write", segment.handle, {grant.address, word, bytes}, [=] {
        if (announced)
            MM_MemoryWritten(grant.address, bytes);
        for (U32 i = 0; i + 4 <= bytes; i += 4)
            std::memcpy(MM_At(grant.address + i), &word, 4);
        return 0;
    });
}

void Sequence::query(Segment& segment, const Record& record)
{
    U32 handle = segment.handle == HEAPHANDLE && record.number % 2 == 0 ? U32(HEAPHANDLE_ALIAS) : segment.handle;
    if (record.owner > 250)
        handle = record.number % 100;
    switch (record.how % 10) {
    case 0: perform("MM_GetTotBlk", handle, {handle}, [=] { return MM_GetTotBlk(handle); }); break;
    case 1: perform("MM_GetTotAvailBlk", handle, {handle}, [=] { return MM_GetTotAvailBlk(handle); }); break;
    case 2: perform("MM_GetLargestBlk", handle, {handle}, [=] { return MM_GetLargestBlk(handle); }); break;
    case 3:
        if (handle < MAX_SEGTABLE_SIZE || handle == HEAPHANDLE_ALIAS)
            perform("MM_FindNewLargestBlk", handle, {handle}, [=] { return MM_FindNewLargestBlk(handle); });
        break;
    case 4: {
        U32 sums[2];
        perform("MM_GetTotalMemoryStatus", handle, {}, [&] {
            MM_GetTotalMemoryStatus(&sums[0], &sums[1]);
            return sums[0] * 31 + sums[1];
        });
        break;
    }
    case 5: perform("MM_DisplayMST", handle, {MM_DISPLAY_ALL}, [] { return MM_DisplayMST(MM_DISPLAY_ALL), 0; }); break;
    case 6: perform("MM_TraceMST", handle, {HEAPHANDLE}, [] { return MM_TraceMST(HEAPHANDLE), 0; }); break;
    case 7: {
        U32 sums[2];
        perform("MM_GetCollationCopyMemoryStatus", handle, {}, [&] {
            MM_GetCollationCopyMemoryStatus(&sums[0], &sums[1]);
            return sums[0] * 31 + sums[1];
        });
        break;
    }
    case 8: perform("MM_GetPermanentStartBlk", handle, {}, [] { return MM_GetPermanentStartBlk(); }); break;
    default:
        perform("MM_ReadMST", handle, {handle}, [=] {
            const TMSTInfo* const info = MM_ReadMST(handle);
            return MM_Addr(info) == MM_FAILED ? MM_FAILED : MM_Addr(info->pubEndSegAddr);
        });
        break;
    }
}

} // namespace velmora::fuzz
