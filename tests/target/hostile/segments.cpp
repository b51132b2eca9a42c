#include "segments.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "../harness.hpp"
#include "../kernel_log.hpp"

namespace target::hostile {

int create(const Descriptor& device, const Shape& shape, std::uint32_t* handle)
{
    TSegInfoFromApp info = {};
    std::memcpy(info.aubSegID, shape.name, std::min(std::strlen(shape.name), sizeof info.aubSegID));
    info.ubType = shape.type;
    info.ubSegDSType = shape.discipline;
    info.ubMap = shape.map;
    info.ubSemaphore = YES;
    info.ulSegSize = shape.bytes;
    info.ulBlkSize = shape.blockBytes;
    info.ubVM = shape.overflow;
    const int answer = device.command(MM_CMD_CREATE_SEGMENT, info);
    if (handle != nullptr)
        *handle = info.hulHandle;
    return answer;
}

std::uint32_t allocate(const Descriptor& device, std::uint32_t handle, std::uint32_t bytes, std::uint8_t owner)
{
    TMallocInfo info = {handle, bytes, owner, {}, 0};
    device.command(MM_CMD_MALLOC, info);
    return info.pubStart;
}

int release(const Descriptor& device, std::uint32_t handle, std::uint32_t address, std::uint32_t bytes)
{
    TFreeInfo info = {handle, address, bytes};
    return device.command(MM_CMD_FREE, info);
}

int collect(const Descriptor& device, std::uint32_t handle, std::uint8_t owner)
{
    TCollectGarbageInfo info = {handle, owner, {}};
    return device.command(MM_CMD_COLLECT_GARBAGE, info);
}

TMMSegInfoWire entryOf(const Descriptor& device, std::uint32_t handle)
{
    TGetMSTInfo info = {};
    info.hubHandle = static_cast<std::uint8_t>(handle);
    CHECK_EQUAL(device.command(MM_CMD_GET_MST, info), 0);
    return info.SegTable;
}

void startAfresh(const Descriptor& device)
{
    TMMInitOption option = MM_CONSTRUCT_DEFAULT_MCT;
    TLibEntryInfo start = {SM_BKUP_OK, 0};
    CHECK_EQUAL(device.command(MM_CMD_ENTRY, option), 0);
    CHECK_EQUAL(device.command(MM_CMD_LIB_ENTRY, start), 0);
}

std::vector<Piece> heapPieces(const Descriptor& device)
{
    KernelLog log;
    TDisplayMSTInfo info = {HEAPHANDLE, 0, {}};
    CHECK_EQUAL(device.command(MM_CMD_DISPLAY_MST, info), 0);
    std::vector<Piece> pieces;
    for (const std::string& line : log.take()) {
        Piece piece = {};
        unsigned handle = 0, bytes = 0, overflow = 0;
        if (line.size() > 5 &&
            std::sscanf(line.c_str() + 5, "%u-%x-%x-%x-%x-%x-%x-%x-%x-%x", &handle, &bytes, &piece.blockBytes,
                        &piece.total, &piece.allocated, &piece.free, &piece.largest, &overflow, &piece.start,
                        &piece.end) == 10 &&
            handle == HEAPHANDLE) // others may have had something else displayed meanwhile
            pieces.push_back(piece);
    }
    return pieces;
}

namespace {

unsigned blockBit(std::uint32_t blockBytes)
{
    return 31U - static_cast<unsigned>(__builtin_clz(blockBytes));
}

// Everything is popped at once, from where the stack's end is. Blocks below four bytes were rounded up when they were pushed, so
// it is looked for.
void popAll(const Descriptor& device, std::uint32_t handle, const TMMSegInfoWire& entry)
{
    const std::uint32_t bytes = entry.ulTotalAllocBlkNum << entry.ubBlkBit;
    for (std::uint32_t top = entry.pubEndAddr - (bytes + 3) / 4 * 4; top >= entry.pubStartAddr; top -= 4)
        if (release(device, handle, top, bytes) == 0)
            return;
    throw Failure("what was pushed on stack " + std::to_string(handle) + " cannot be popped");
}

void checkStack(const Descriptor& device, std::uint32_t handle)
{
    const TMMSegInfoWire before = entryOf(device, handle);
    CHECK_EQUAL(before.ulTotalFreeBlkNum + before.ulTotalAllocBlkNum, before.ulTotalBlkNum);
    if (before.ulTotalAllocBlkNum != 0)
        popAll(device, handle, before);
    const TMMSegInfoWire after = entryOf(device, handle);
    CHECK_EQUAL(after.ulTotalFreeBlkNum, after.ulTotalBlkNum);
}

void checkList(const Descriptor& device, std::uint32_t handle)
{
    TMMSegInfoWire entry = entryOf(device, handle);
    const std::uint32_t total = entry.ulTotalBlkNum;
    while (entry.ulTotalFreeBlkNum != 0) {
        CHECK_EQUAL(entry.ulTotalFreeBlkNum + entry.ulTotalAllocBlkNum, total);
        CHECK(entry.ulLargestBlkSize != 0 && entry.ulLargestBlkSize <= entry.ulTotalFreeBlkNum);
        const std::uint32_t free = entry.ulTotalFreeBlkNum - entry.ulLargestBlkSize;
        const std::uint32_t address =
            allocate(device, handle, entry.ulLargestBlkSize << entry.ubBlkBit, entry.stInfoFromApp.ubMap != 0);
        CHECK(address >= entry.pubStartAddr && address < entry.pubEndAddr);
        entry = entryOf(device, handle);
        CHECK_EQUAL(entry.ulTotalFreeBlkNum, free);
    }
    CHECK_EQUAL(entry.ulTotalAllocBlkNum, total);
    CHECK_EQUAL(release(device, handle, entry.pubStartAddr, total << entry.ubBlkBit), 0);
    entry = entryOf(device, handle);
    CHECK_EQUAL(entry.ulTotalAllocBlkNum, 0U);
    CHECK_EQUAL(entry.ulTotalFreeBlkNum, total);
    CHECK_EQUAL(entry.ulLargestBlkSize, total);
}

// The heap's entry cannot be asked for, so what is free is found by asking for less and less.
void checkHeap(const Descriptor& device)
{
    const std::vector<Piece> pieces = heapPieces(device);
    if (pieces.empty())
        return;
    const unsigned bit = blockBit(pieces[0].blockBytes);
    for (std::uint32_t blocks = pieces[0].largest; blocks > 0; blocks /= 2)
        for (;;) {
            std::uint32_t address = allocate(device, HEAPHANDLE, blocks << bit, 0);
            if (address == 0xFFFFFFFF) // a heap with an owner map takes no owner 0
                address = allocate(device, HEAPHANDLE, blocks << bit, 1);
            CHECK(address != 0xFFFFFFFF);
            if (address == 0)
                break;
        }
    for (const Piece& piece : heapPieces(device))
        CHECK_EQUAL(piece.free, 0U);
    std::uint32_t largest = 0;
    for (const Piece& piece : pieces) {
        const std::uint32_t blocks = (piece.end - piece.start) >> bit;
        CHECK_EQUAL(release(device, HEAPHANDLE, piece.start, blocks << bit), 0);
        largest = std::max(largest, blocks);
    }
    for (const Piece& piece : heapPieces(device)) {
        CHECK_EQUAL(piece.free, (piece.end - piece.start) >> bit);
        CHECK_EQUAL(piece.largest, largest);
    }
}

} // namespace

void checkBooks(const Descriptor& device)
{
    for (std::uint32_t handle = 0; handle < kSegments; ++handle) {
        const TMMSegInfoWire entry = entryOf(device, handle);
        if (entry.pfnFree == 0)
            continue;
        if (entry.stInfoFromApp.ubSegDSType == STACK)
            checkStack(device, handle);
        else
            checkList(device, handle);
    }
    checkHeap(device);
}

} // namespace target::hostile
