// What clients do wrong.
#include "sequence.h"

#include <cstring>

#include "kernel/mm/mm/MM_RunIndex.h"
#include "weights.h"

namespace velmora::fuzz {

using namespace test;
using sim::Machine;

void Sequence::allocateWrongly(Segment& segment, const Record& record)
{
    const U32 handle = record.how < 32 ? record.number % 70 : segment.handle;
    const U32 counts[] = {
        0x80000000,    0xFFFFFFFF, 0xFFFFFFFF - record.number % 64, 0x80000000 + record.number % 64, 0x7FFFFFFF,
        record.number, 0};
    const U32 count = counts[record.owner % std::size(counts)];
    const U8 owner = static_cast<U8>(record.how % 4 == 0 ? record.number >> 8 : ownerFor(segment, record.owner));
    if (record.how % 2 == 0)
        perform("MM_AllocBlock", handle, {handle, count, owner}, [=] { return MM_AllocBlock(handle, count, owner); });
    else
        perform("MM_Malloc", handle, {handle, count, owner}, [=] { return MM_Malloc(handle, count, owner); });
}

// An address in a segment or beside it where nobody expects a release.
U32 Sequence::wrongPlace(const TMMSegInfo& seg, U32 number)
{
    const U32 places[] = {MM_Addr(seg.pubStartAddr),
                          MM_Addr(seg.pubEndAddr),
                          MM_Addr(seg.pubEndAddr) - (1U << seg.ubBlkBit),
                          MM_Addr(seg.pubEndAddr) - 1,
                          MM_Addr(seg.pubStartAddr) - 1,
                          0,
                          0xFFFFFFFF,
                          sim::kPageOffset,
                          sim::kHighMemory - 4,
                          MM_Addr(seg.pubMapStartAddr),
                          memend,
                          0x1000};
    return places[number % std::size(places)];
}

// What is released by mistake: mostly near a client's memory or a free run.
Sequence::Run Sequence::wrongRelease(const Segment& segment, const Record& record) const
{
    const TMMSegInfo& seg = stSegTable[segment.handle];
    const U32 unit = unitBytes(segment.handle);
    const Segment& other = segments_[record.number / 7 % segments_.size()];
    const Run run = freeRun(segment.handle, record.number % 64, record.how % 2 == 0);
    const Grant grant = segment.grants.empty() ? lastReleased_ : segment.grants[record.number % segment.grants.size()];
    const U32 part = record.number / 64;
    const U32 few = 1 + part % 9;
    const U32 counts[] = {0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0x80000000 >> seg.ubBlkBit, 0, seg.ulTotalBlkNum};

    switch (record.owner / 2 % 16) {
    case 0: return {lastReleased_.address, lastReleased_.blocks};
    case 1: return {grant.address + few * unit, grant.blocks};
    case 2: return {grant.address - few * unit, grant.blocks};
    case 3: return {grant.address + 1 + part % (unit > 1 ? unit - 1 : 1), grant.blocks};
    case 4: return {grant.address, grant.blocks + few};
    case 5: return {run.address, few};
    case 6: return {run.address + unit * (1 + record.number / 512 % (run.blocks + 1)), few};
    case 7: return {run.address - few * unit, few + record.number / 1024 % 4};
    case 8:
        return {other.grants.empty() ? grant.address : other.grants[record.number % other.grants.size()].address,
                grant.blocks};
    case 9: return {wrongPlace(seg, part), grant.blocks};
    case 10: return {grant.address, counts[part % std::size(counts)]};
    case 11: return {MM_Addr(seg.pubEndAddr) - few * unit, few + 1};
    case 12: return {run.address + run.blocks * unit, few};
    default: return {grant.address, grant.blocks + part % 64};
    }
}

void Sequence::releaseWrongly(Segment& segment, const Record& record)
{
    const U32 handle = record.how < 8 ? record.number % 60 : segment.handle;
    const Run wrong = wrongRelease(segment, record);
    const U32 address = wrong.address;
    const U32 blocks = wrong.blocks;
    if (record.how % 4 == 0)
        perform("MM_FreeBlk", segment.handle, {segment.handle, address, blocks},
                [address, blocks, held = segment.handle] { return MM_FreeBlk(held, MM_At(address), blocks); });
    else if (record.how % 4 == 1)
        perform("MM_Free", handle, {handle, address, blocks * unitBytes(segment.handle)},
                [=, bytes = blocks * unitBytes(segment.handle)] { return MM_Free(handle, MM_At(address), bytes); });
    else
        perform("MM_FreeBlock", handle, {handle, address, blocks},
                [=] { return MM_FreeBlock(handle, MM_At(address), blocks); });
}

void Sequence::claimWrongly(Segment& segment, const Record& record)
{
    const U32 handle = segment.handle;
    if (handle == HEAPHANDLE)
        return;
    const U32 unit = unitBytes(handle);
    const Run run = freeRun(handle, record.number % 64, record.how % 2 == 0);
    U32 address = run.address + record.number / 64 % (run.blocks + 2) * unit;
    U32 blocks = 1 + record.number / 1024 % 16;
    switch (record.owner / 2 % 8) {
    case 0: address = run.address; break;                   // the rest is kept far away
    case 1: address += record.number / 4096 % unit; break;  // between two blocks
    case 2: blocks = run.blocks + record.number % 4; break; // perhaps past the run
    case 3: address = MM_Addr(stSegTable[handle].pubStartAddr); break;
    case 4: blocks = record.number; break;
    default: break; // splits the run
    }
    perform("MM_ReallocBlock", handle, {handle, address, blocks},
            [=] { return MM_ReallocBlock(handle, MM_At(address), blocks); });
}

// Overwrites a header, as a client does that writes past its memory, and lets the manager know.
void Sequence::writeHeader(Segment& segment, const Record& record)
{
    const TMMSegInfo& seg = stSegTable[segment.handle];
    const U32 unit = unitBytes(segment.handle);
    const Run run = freeRun(segment.handle, record.number % 64, record.how % 2 == 0);
    const Run other = freeRun(segment.handle, record.number / 64 % 64, record.how % 4 < 2);
    const U32 offset = record.owner % 16;
    const U32 address = record.how < 24 ? run.address + offset - 6 : run.address + offset % 3 * 4;
    const U32 values[] = {0,
                          1,
                          run.address,
                          other.address,
                          other.blocks,
                          run.blocks + 1,
                          run.blocks - 1,
                          0x80000000,
                          MM_Addr(seg.pubStartAddr) + record.number / 4096 % (seg.ulTotalBlkNum + 1) * unit,
                          other.address + unit,
                          record.number,
                          0xFFFFFFFF};
    const U32 value = values[record.number / 128 % std::size(values)];
    const U32 bytes = record.how < 24 ? 1 + record.owner / 16 % 4 : 4;
    if (!Machine::exists(address, bytes))
        return;
    const bool announcedFirst = record.how % 8 < 4;
    perform("poke", segment.handle, {address, value, bytes}, [=] {
        if (announcedFirst)
            MM_MemoryWritten(address, bytes);
        std::memcpy(MM_At(address), &value, bytes);
        if (!announcedFirst)
            MM_MemoryWritten(address, bytes);
        return 0;
    });
}

// Fills memory that may hold free runs, or rows of the configuration table with a segment in them.
void Sequence::clear(Segment& segment, const Record& record)
{
    const Run run = freeRun(segment.handle, record.number % 64, record.how % 2 == 0);
    if (record.how < 64) {
        const char* const names[] = {"$UEV", "$JCB", "$FIL", "$ALL"};
        const char* const name = names[record.number % std::size(names)];
        U8 id[4];
        setName(id, name);
        perform(record.how < 16 ? "MM_RestoreMCT" : "MM_ClearSegment", segment.handle, {record.number % 4},
                [&] { return record.how < 16 ? MM_RestoreMCT() : MM_ClearSegment(id); });
        return;
    }
    const U32 address = run.address + record.number / 64 % 64 - 32;
    const U32 bytes = record.how < 160 ? 1 + record.owner % 32 : 1 + record.number / 4096 % 65536;
    const TMemsetInfo info{address, static_cast<S32>(record.number >> 30), bytes};
    perform("MM_CMD_MEMSET", segment.handle, {address, record.number >> 30, bytes}, [=] {
        std::memcpy(MM_At(sim::kScratch), &info, sizeof info);
        return Velmora_MM_ioctl(MM_CMD_MEMSET, sim::kScratch);
    });
}

// Lays a segment over another one: by a row of the configuration table, or by initialising it there.
void Sequence::layOver(Segment& segment, const Record& record)
{
    const Segment& under = segments_[record.number % segments_.size()];
    const TMMSegInfo& below = stSegTable[under.handle];
    const U32 start = (under.handle == HEAPHANDLE ? stSegStartAddr.aulHeapAddr[0] : MM_Addr(below.pubStartAddr)) +
                      (record.number / 16 % 4096 & ~3U);
    const U32 bytes = 512 + (record.number >> 16 & 0xFFFC);
    if (record.how % 4 != 0) {
        if (segment.handle == HEAPHANDLE || segment.stack)
            return;
        TMMSegInfo seg = stSegTable[segment.handle];
        seg.pubStartAddr = MM_At(start);
        seg.pubEndAddr = MM_At(start + bytes);
        seg.stInfoFromApp.ulRetSegSize = bytes;
        perform("MM_SegInitial", segment.handle, {segment.handle, start, bytes, seg.stInfoFromApp.ulBlkSize},
                [&seg] { return MM_SegInitial(&seg); });
        segment.grants.clear();
        return;
    }
    if (record.number % 3 == 0) { // the free memory begins behind the fixed segments once more
        perform("MM_ConstructSegLinkedList", segment.handle, {}, [] { return MM_ConstructSegLinkedList(); });
        const char text[] = {'N', 'E', 'W', static_cast<char>('0' + overlays_++ % 10), 0};
        create(text, shapeAt(8 + record.number % 8 * 8));
        return;
    }
    U8 row[4];
    setName(row, kFixedNames[record.number / 4 % std::size(kFixedNames)]);
    U8 name[4] = {'O', 'V', 'R', static_cast<U8>('0' + overlays_++ % 10)};
    perform("MM_DeleteSegment", under.handle, {record.number / 4 % 3}, [&] { return MM_DeleteSegment(row); });
    perform("MM_AddSegment", under.handle, {bytes, start}, [&] { return MM_AddSegment(name, bytes, MM_At(start)); });
    Shape shape = shapeAt(8 + record.number % 8 * 8);
    shape.type = FIXED;
    const char text[] = {'O', 'V', 'R', static_cast<char>(name[3]), 0};
    create(text, shape);
}

void Sequence::permanentWrongly(Segment&, const Record& record)
{
    const Segment& any = segments_[record.how % 8 != 0 ? segments_.size() - 1 : record.segment % segments_.size()];
    const Run run = freeRun(any.handle, record.number % 64, true);
    const U32 address =
        record.how % 2 == 0 || any.grants.empty() ? run.address : any.grants[record.number % any.grants.size()].address;
    const U32 blocks = record.number / 64 % (record.how % 4 < 2 ? 100 : stSegTable[HEAPHANDLE].ulTotalBlkNum + 64);
    switch (record.owner % 4) {
    case 0:
        perform("MM_SetPermanentBlk", HEAPHANDLE, {address, blocks},
                [=] { return MM_SetPermanentBlk(address, blocks), 0; });
        break;
    case 1:
        perform("MM_ReleasePermanentBlk", HEAPHANDLE, {address, blocks},
                [=] { return MM_ReleasePermanentBlk(address, blocks), 0; });
        break;
    case 2: perform("MM_RlsAllPermanentBlk", HEAPHANDLE, {}, [] { return MM_RlsAllPermanentBlk(), 0; }); break;
    default:
        perform("MM_CheckPermanentBlk", HEAPHANDLE, {address, blocks},
                [=] { return MM_CheckPermanentBlk(address, blocks); });
    }
}

} // namespace velmora::fuzz
