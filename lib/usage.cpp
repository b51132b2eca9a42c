#include <velmora/usage.hpp>

#include <array>
#include <bit>
#include <cstdio>
#include <mutex>

#include "lib/segment_state.hpp"

namespace velmora {

namespace {

SegmentUsage usageOf(const MM_TMMSegInfoWire& entry)
{
    const MM_TSegInfoFromApp& request = entry.stInfoFromApp;
    return {.name = nameOf(request.aubSegID),
            .handle = static_cast<Handle>(request.hulHandle),
            .place = request.ubType == MM_FIXED ? Place::Fixed : Place::Float,
            .discipline = static_cast<Discipline>(request.ubSegDSType),
            .blockBytes = request.ulBlkSize,
            .blockStride = std::bit_floor(request.ulBlkSize),
            .ownerBits = request.ubMap,
            .locked = request.ubSemaphore == MM_YES,
            .managerOverflows = request.ubVM != 0,
            .start = entry.pubStartAddr,
            .end = entry.pubEndAddr,
            .blocks = entry.ulTotalBlkNum,
            .freeBlocks = entry.ulTotalFreeBlkNum,
            .longestRun = entry.ulLargestBlkSize,
            .usable = refusalOf(entry)};
}

} // namespace

std::vector<SegmentUsage> segments(Device& device)
{
    std::vector<SegmentUsage> all;
    for (std::uint8_t handle = 0; handle < MM_HEAPHANDLE; ++handle)
        if (const auto entry = device.segment(handle); entry && isUsed(*entry))
            all.push_back(usageOf(*entry));
    return all;
}

std::vector<OwnerUsage> owners(const Segment& segment)
{
    auto& state = SegmentAccess::state(segment);
    if (segment.isHeap() || segment.ownerBits() == 0)
        throw Error("owners", Errc::NotKnown, "'" + segment.name() + "' has no owner map that a process can read");
    std::array<std::uint32_t, 256> blocks{};
    const std::lock_guard guard(state.holdings.mutex);
    const MM_TMMSegInfoWire current = state.now("owners");
    std::uint32_t owned = 0;
    for (std::uint32_t block = 0; block < current.ulTotalBlkNum; ++block)
        if (const unsigned owner = state.ownerOf(block); owner != 0) {
            ++blocks[owner];
            ++owned;
        }
    blocks[0] = current.ulTotalAllocBlkNum > owned ? current.ulTotalAllocBlkNum - owned : 0;
    std::vector<OwnerUsage> used;
    for (unsigned owner = 0; owner < blocks.size(); ++owner)
        if (blocks[owner] != 0)
            used.push_back({static_cast<Owner>(owner), blocks[owner]});
    return used;
}

std::vector<OwnerUsage> owners(const Segment& segment, std::error_code& error)
{
    return orElse(error, std::vector<OwnerUsage>(), [&] { return owners(segment); });
}

std::vector<FreeRun> freeRuns(const Segment& segment)
{
    auto& state = SegmentAccess::state(segment);
    if (segment.isHeap())
        throw Error("freeRuns", Errc::NotKnown, "no command shows the heap's entry");
    const std::lock_guard guard(state.holdings.mutex);
    const MM_TMMSegInfoWire current = state.now("freeRuns");
    const std::uint32_t free = current.ulTotalFreeBlkNum;
    if (free == 0)
        return {};
    if (state.isStack() || free == current.ulTotalBlkNum)
        return {{current.pubStartAddr, free}};
    std::vector<FreeRun> runs;
    std::uint32_t found = 0;
    bool before = false; // the block before is free
    for (std::uint32_t block = 0; segment.ownerBits() != 0 && block < current.ulTotalBlkNum; ++block) {
        const bool now = state.ownerOf(block) == 0;
        if (now && !before)
            runs.push_back({current.pubStartAddr + block * segment.blockBytes(), 0});
        if (now) {
            ++runs.back().blocks;
            ++found;
        }
        before = now;
    }
    if (found != free)
        throw Error("freeRuns", Errc::NotKnown, "not every allocated block of '" + segment.name() + "' has an owner");
    return runs;
}

std::vector<FreeRun> freeRuns(const Segment& segment, std::error_code& error)
{
    return orElse(error, std::vector<FreeRun>(), [&] { return freeRuns(segment); });
}

Fragmentation fragmentation(const Segment& segment)
{
    if (segment.isHeap())
        throw Error("fragmentation", Errc::NotKnown, "no command shows the heap's entry");
    const MM_TMMSegInfoWire current = SegmentAccess::state(segment).now("fragmentation");
    const std::uint32_t free = current.ulTotalFreeBlkNum, longest = current.ulLargestBlkSize;
    const std::uint32_t block = segment.blockBytes();
    return {free * block, longest * block, free == 0 ? 0 : 1 - static_cast<double>(longest) / free};
}

Fragmentation fragmentation(const Segment& segment, std::error_code& error)
{
    return orElse(error, Fragmentation(), [&] { return fragmentation(segment); });
}

std::vector<HeapPiece> heapPieces(std::span<const std::string> kernelLog)
{
    std::vector<HeapPiece> pieces, display;
    bool inside = false;
    for (const std::string& line : kernelLog) {
        unsigned handle, bytes, block, all, taken, free, longest, overflows, start, end;
        if (line.find("Display MST") != line.npos) {
            inside = true;
            display.clear();
        } else if (inside && line.size() > 5 && line[0] == ' ' &&
                   std::sscanf(line.c_str() + 5, "%4u-%x-%x-%x-%x-%x-%x-%x-%x-%x", &handle, &bytes, &block, &all,
                               &taken, &free, &longest, &overflows, &start, &end) == 10 &&
                   handle == MM_HEAPHANDLE) {
            display.push_back({start, end, block, all, free});
            pieces = display;
        }
    }
    return pieces;
}

} // namespace velmora
