// Commands of the device player: which may be sent, and what their answers mean for the books.
#include <bit>
#include <cstring>

#include "controller/device.h"
#include "fuzz/device.h"
#include "fuzz/open_states.h"
#include "kernel/mm/mm/MM_Layout.h"
#include "kernel/mm/mmi/MM_Interface.h"

namespace velmora::fuzz {

using sim::Machine;
using sim::machine;

namespace {

template <class Record> const Record& as(const void* record)
{
    return *static_cast<const Record*>(record);
}

bool isBlocks(U32 handle)
{
    return handle < MAX_SEGTABLE_SIZE && stSegTable[handle].pfnFree == MM_FreeBlk;
}

bool isStack(U32 handle)
{
    return handle < MAX_SEGTABLE_SIZE && stSegTable[handle].pfnFree == MM_Pop;
}

bool inHeap(U32 address)
{
    return MM_CheckHeapArea(MM_At(address)) != 0;
}

// Which segment has an address that an allocation was answered with: the heap what overflowed.
U32 giverOf(U32 handle, U32 address)
{
    return inHeap(address) ? U32(HEAPHANDLE) : MM_RealHandle(handle);
}

// Which segment a release goes to. What overflowed from a stack is to be released as the heap's.
U32 holderOf(U32 handle, U32 address)
{
    handle = MM_RealHandle(handle);
    return isBlocks(handle) && inHeap(address) ? U32(HEAPHANDLE) : handle;
}

// Bytes that so many bytes of a request are, counted in one segment's blocks and given in another one's.
U32 bytesGiven(U32 handle, U32 holder, U32 bytes)
{
    const U32 asked = 1U << stSegTable[MM_RealHandle(handle)].ubBlkBit;
    return ((asked - 1 + bytes) / asked) << stSegTable[holder].ubBlkBit;
}

bool isInFreeRun(U32 handle, U32 address, U32 bytes)
{
    const U8 bit = stSegTable[handle].ubBlkBit;
    for (const TMMBlkStr* run = astBlkHead[handle].pstBlk; run != nullptr; run = run->pstNext)
        if (MM_Addr(run) < address + bytes && address < MM_Addr(run) + (run->ulSize << bit))
            return true;
    return false;
}

bool isStillHeld(const Books::Piece& piece, U32 address, U32 bytes)
{
    if (isStack(piece.handle))
        return true;
    if constexpr (MM_Guarded)
        return MM_GuardHeld(address, bytes);
    return !isInFreeRun(piece.handle, address, bytes);
}

} // namespace

// Sending ---------------------------------------------------------------------------------------------

int DevicePlayer::runEntry(const std::function<int()>& entry)
{
    const sim::Outcome outcome = machine().run([&] { return static_cast<U32>(entry()); });
    if (!outcome.returned())
        note(outcome.describe("a command"));
    for (const TMMLock lock : {search_lock, free_lock, push_lock, pop_lock})
        if (machine().lockHeld(lock))
            note("a lock stayed held");
    return static_cast<int>(outcome.value);
}

void DevicePlayer::send(U32 number, const std::uint8_t* record, std::size_t bytes)
{
    alignas(8) std::array<std::uint8_t, 128> copy{};
    std::memcpy(copy.data(), record, bytes);
    if (!mayBeSent(number, copy.data()))
        return;
    std::memcpy(Machine::at(sim::kScratch), copy.data(), copy.size());
    const int answer = runEntry([=] { return Velmora_MM_ioctl(number, sim::kScratch); });
    if (mistake_.empty())
        answered(number, answer, copy.data());
}

// What may be sent ------------------------------------------------------------------------------------

bool DevicePlayer::mayBeSent(U32 number, const void* record) const
{
    if (number != MM_CMD_ENTRY && isLeftOut(Open::NotStarted) &&
        (pstMCTTable[0] == nullptr ||
         (pstSegBlkHead == nullptr && !isBlocks(HEAPHANDLE) && number != MM_CMD_LIB_ENTRY)))
        return false;
    const U32 first = as<U32>(record);
    switch (number) {
    case MM_CMD_ENTRY: return !(isLeftOut(Open::TableBuiltTwice) && pstMCTTable[0] != nullptr);
    case MM_CMD_LIB_ENTRY: return mayStart();
    case MM_CMD_CREATE_SEGMENT: return mayCreate(as<TSegInfoFromApp>(record));
    case MM_CMD_FREE: return mayRelease(as<TFreeInfo>(record));
    case MM_CMD_COLLECT_GARBAGE: return mayCollect(as<TCollectGarbageInfo>(record));
    case MM_CMD_MEMSET: {
        const auto& fill = as<TMemsetInfo>(record);
        return !isLeftOut(Open::WildFill) || fill.n == 0 || books_.holdsAnywhere(fill.s, fill.n);
    }
    case MM_CMD_CLEAR_SEGMENT: return mayClear(as<TClearSegmentInfo>(record).aubCFGID);
    case MM_CMD_DELETE_SEGMENT: return !isLeftOut(Open::RowGone);
    case MM_CMD_CHECK_SEGMENT: return !isLeftOut(Open::HandleBeyondTable) || first < MAX_SEGTABLE_SIZE;
    case MM_CMD_DISPLAY_MST:
        return !isLeftOut(Open::HandleBeyondTable) || first % 256 < MAX_SEGTABLE_SIZE || first % 256 == MM_DISPLAY_ALL;
    default: return true;
    }
}

bool DevicePlayer::mayStart() const
{
    return !isLeftOut(Open::StartedInUse) || books_.pieces().empty();
}

bool DevicePlayer::mayCreate(const TSegInfoFromApp& info) const
{
    if (!isLeftOut(Open::OddLayout))
        return true;
    constexpr U32 smallest = 16, largest = 0x10000, blocks = 4, most = 16U << 20;
    if (!std::has_single_bit(info.ulBlkSize) || info.ulBlkSize < smallest || info.ulBlkSize > largest)
        return false;
    if (info.ubType == FIXED) {
        for (const TMCTInfo& row : stDefaultMCTTable)
            if (std::memcmp(row.aubCFGID, info.aubSegID, sizeof row.aubCFGID) == 0)
                return row.ulSize / info.ulBlkSize >= blocks;
        return true;
    }
    if (info.ulSegSize != 0)
        return info.ulSegSize % 4096 == 0 && info.ulSegSize < most && info.ulSegSize / info.ulBlkSize >= blocks;
    for (const TMMBlkStr* node = pstSegBlkHead; node != nullptr; node = node->pstNext)
        if (node->ulSize / info.ulBlkSize < blocks)
            return false;
    return info.ubSegDSType != STACK;
}

bool DevicePlayer::mayRelease(const TFreeInfo& info) const
{
    const U32 handle = MM_RealHandle(info.hulHandle);
    if (!isLeftOut(Open::WildRelease) || info.pubRlsAddr == 0 || info.ulBytesNo == 0)
        return true;
    if (!isBlocks(handle) && !isStack(handle))
        return true; // refused before anything is looked at
    const U32 holder = holderOf(handle, info.pubRlsAddr);
    const U32 bytes = bytesGiven(handle, holder, info.ulBytesNo);
    if (bytes == 0 || !books_.holds(holder, info.pubRlsAddr, bytes))
        return false;
    if (isStack(holder)) {
        const auto top = books_.pieces().find(info.pubRlsAddr);
        return info.pubRlsAddr == MM_Addr(astStackStr[holder].pubStackHead) && top != books_.pieces().end() &&
               top->second.bytes == bytes;
    }
    const auto piece = std::prev(books_.pieces().upper_bound(info.pubRlsAddr));
    return (info.pubRlsAddr - piece->first) % (1U << stSegTable[holder].ubBlkBit) == 0;
}

bool DevicePlayer::mayCollect(const TCollectGarbageInfo& info) const
{
    const U32 handle = MM_RealHandle(info.hulHandle);
    return !isLeftOut(Open::WideOwner) || handle >= MAX_SEGTABLE_SIZE || stSegTable[handle].stInfoFromApp.ubMap == 0 ||
           (info.ubMapID != 0 && info.ubMapID >> stSegTable[handle].stInfoFromApp.ubMap == 0);
}

// Clearing names that no segment in use has.
bool DevicePlayer::mayClear(const U8* name) const
{
    if (!isLeftOut(Open::ClearedSegment))
        return true;
    for (U32 handle = 0; handle < MAX_FIXEDSEG_NUM; ++handle)
        if ((isBlocks(handle) || isStack(handle)) &&
            (std::memcmp(name, "$ALL", 4) == 0 || std::memcmp(name, stSegTable[handle].stInfoFromApp.aubSegID, 4) == 0))
            return false;
    return true;
}

// What a client can have mapped: any of the managed area.
bool DevicePlayer::mayWrite(U32 address, U32 bytes) const
{
    if (isLeftOut(Open::OverwrittenMemory))
        return books_.holdsAnywhere(address, bytes);
    return address >= memstart && address < memend && bytes <= memend - address;
}

// Answers ---------------------------------------------------------------------------------------------

void DevicePlayer::answered(U32 number, int answer, const void* asked)
{
    const std::uint8_t* const record = Machine::at(sim::kScratch);
    if (number == MM_CMD_MALLOC)
        allocated(as<TMallocInfo>(record));
    if (number == MM_CMD_FREE && answer == ENOERR)
        released(as<TFreeInfo>(asked));
    if (number == MM_CMD_COLLECT_GARBAGE)
        forgetCollected();
    if ((number == MM_CMD_LIB_ENTRY || number == MM_CMD_ENTRY) && answer == ENOERR) {
        if (!books_.pieces().empty())
            note("the library was started while blocks are held");
        books_.clear();
    }
}

void DevicePlayer::allocated(const TMallocInfo& info)
{
    const U32 address = info.pubStart;
    if (address == 0 || address == MM_FAILED)
        return;
    const U32 holder = giverOf(info.hulHandle, address);
    const U32 bytes = bytesGiven(info.hulHandle, holder, info.ulReqBytes);
    if (address < memstart || address >= memend || bytes > memend - address)
        return note("memory outside the managed area was handed out");
    if (bytes < info.ulReqBytes && !isLeftOut(Open::SmallHeapBlocks))
        note("fewer bytes than asked for were handed out");
    note(books_.take(holder, address, bytes));
}

void DevicePlayer::released(const TFreeInfo& info)
{
    const U32 holder = holderOf(info.hulHandle, info.pubRlsAddr);
    if (isStack(holder))
        popped(holder);
    else if (isBlocks(holder))
        note(books_.give(info.pubRlsAddr, bytesGiven(info.hulHandle, holder, info.ulBytesNo)));
}

// What lies below the stack's end is nobody's any more.
void DevicePlayer::popped(U32 handle)
{
    const U32 head = MM_Addr(astStackStr[handle].pubStackHead);
    const Books::Pieces before = books_.pieces();
    for (const auto& [address, piece] : before)
        if (piece.handle == handle && address < head)
            note(books_.give(address, std::min(head - address, piece.bytes)));
}

void DevicePlayer::forgetCollected()
{
    books_.review([](const Books::Piece& piece) { return 1U << stSegTable[piece.handle].ubBlkBit; }, isStillHeld);
}

// The end ---------------------------------------------------------------------------------------------

void DevicePlayer::settle()
{
    for (U32 handle = 0; handle < MAX_SEGTABLE_SIZE; ++handle) {
        if (!isStack(handle) || handle == HEAPHANDLE)
            continue;
        while (mistake_.empty() && stSegTable[handle].ulTotalAllocBlkNum != 0) {
            const U32 head = MM_Addr(astStackStr[handle].pubStackHead);
            const U32 before = stSegTable[handle].ulTotalAllocBlkNum;
            const auto top = books_.pieces().find(head);
            const U32 bytes =
                MM_Guarded || top == books_.pieces().end() ? before << stSegTable[handle].ubBlkBit : top->second.bytes;
            send(MM_CMD_FREE, TFreeInfo{handle, head, bytes});
            if (stSegTable[handle].ulTotalAllocBlkNum >= before)
                note("a stack's blocks cannot be given back");
        }
    }
    while (mistake_.empty() && !books_.pieces().empty()) {
        const auto [address, piece] = *books_.pieces().begin();
        send(MM_CMD_FREE, TFreeInfo{piece.handle, address, piece.bytes});
        if (mistake_.empty() && books_.holdsAnywhere(address, piece.bytes))
            note("what is held cannot be given back");
    }
    for (U32 handle = 0; handle < MAX_SEGTABLE_SIZE && mistake_.empty(); ++handle)
        checkSegment(handle);
    checkOutside();
}

void DevicePlayer::checkSegment(U32 handle)
{
    const TMMSegInfo& seg = stSegTable[handle];
    const std::string name = "segment " + std::to_string(handle);
    if (!isBlocks(handle))
        return;
    if (seg.ulTotalFreeBlkNum != seg.ulTotalBlkNum || seg.ulTotalAllocBlkNum != 0)
        note(name + ": " + std::to_string(seg.ulTotalBlkNum - seg.ulTotalFreeBlkNum) + " blocks are lost");
    if (MM_Guarded && scribbled_) // a stray write stays until it is looked at
        return;
    U32 free = 0;
    const TMMBlkStr* last = nullptr;
    for (const TMMBlkStr* run = astBlkHead[handle].pstBlk; run != nullptr; run = run->pstNext) {
        if (run->pstBack != last || (last != nullptr && run <= last))
            return note(name + ": the links of its list disagree");
        free += run->ulSize;
        last = run;
    }
    if (free != seg.ulTotalFreeBlkNum || astBlkTail[handle].pstBlk != last)
        note(name + ": the list and the counters disagree");
}

// No page of RAM but the area's was written, or read.
void DevicePlayer::checkOutside()
{
    for (const Machine::Stretch& used : machine().usedRam())
        if (used.start < memstart || used.end > memend)
            note("memory outside the managed area was touched");
}

} // namespace velmora::fuzz
