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

// A segment's entry and the owner map's, read together.
struct Picture {
    MM_TMMSegInfoWire entry;
    std::vector<OwnedRun> runs; // of equal entries, 0 included; empty without a map
};

Picture pictureOf(const char* call, const Segment& segment)
{
    if (segment.isHeap())
        throw Error(call, Errc::NotKnown, "no command shows the heap's entry");
    auto& state = SegmentAccess::state(segment);
    const std::lock_guard guard(state.holdings.mutex);
    Picture picture{state.now(call), {}};
    for (std::uint32_t block = 0; state.ownerBits() != 0 && block < picture.entry.ulTotalBlkNum; ++block) {
        const auto owner = static_cast<Owner>(state.ownerOf(block));
        if (picture.runs.empty() || picture.runs.back().owner != owner)
            picture.runs.push_back({owner, picture.entry.pubStartAddr + block * state.blockBytes(), 0});
        ++picture.runs.back().blocks;
    }
    return picture;
}

Picture ownersOf(const char* call, const Segment& segment)
{
    if (!segment.isHeap() && segment.ownerBits() == 0)
        throw Error(call, Errc::NotKnown, "'" + segment.name() + "' has no owner map");
    return pictureOf(call, segment);
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
    const Picture picture = ownersOf("owners", segment);
    std::array<std::uint32_t, 256> blocks{};
    std::uint32_t owned = 0;
    for (const OwnedRun& run : picture.runs)
        if (run.owner != Owner::Nobody) {
            blocks[static_cast<std::size_t>(run.owner)] += run.blocks;
            owned += run.blocks;
        }
    blocks[0] = picture.entry.ulTotalAllocBlkNum > owned ? picture.entry.ulTotalAllocBlkNum - owned : 0;
    std::vector<OwnerUsage> used;
    for (unsigned owner = 0; owner < blocks.size(); ++owner)
        if (blocks[owner] != 0)
            used.push_back({static_cast<Owner>(owner), blocks[owner]});
    return used;
}

std::vector<OwnedRun> ownedRuns(const Segment& segment)
{
    std::vector<OwnedRun> runs = ownersOf("ownedRuns", segment).runs;
    std::erase_if(runs, [](const OwnedRun& run) { return run.owner == Owner::Nobody; });
    return runs;
}

std::vector<OwnedRun> ownedRuns(const Segment& segment, std::error_code& error)
{
    return orElse(error, std::vector<OwnedRun>(), [&] { return ownedRuns(segment); });
}

std::vector<OwnerUsage> owners(const Segment& segment, std::error_code& error)
{
    return orElse(error, std::vector<OwnerUsage>(), [&] { return owners(segment); });
}

std::vector<FreeRun> freeRuns(const Segment& segment)
{
    const Picture picture = pictureOf("freeRuns", segment);
    const std::uint32_t free = picture.entry.ulTotalFreeBlkNum;
    if (free == 0)
        return {};
    if (segment.discipline() == Discipline::Stack || free == picture.entry.ulTotalBlkNum)
        return {{picture.entry.pubStartAddr, free}};
    std::vector<FreeRun> runs;
    std::uint32_t found = 0;
    for (const OwnedRun& run : picture.runs)
        if (run.owner == Owner::Nobody) {
            runs.push_back({run.start, run.blocks});
            found += run.blocks;
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
            display.push_back({start, end, block, all, free, longest});
            pieces = display;
        }
    }
    return pieces;
}

} // namespace velmora
