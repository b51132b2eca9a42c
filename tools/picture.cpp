#include "picture.hpp"

#include <algorithm>
#include <bit>
#include <chrono>
#include <thread>

#include "device_command.hpp"
#include "free_list.hpp"
#include "segment_entry.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kChanged = "it changed each time that it was read";
constexpr const char* kNotSound = "its entry in the table is not sound";
constexpr const char* kOwnedFreeBlocks = "its owner map has owners for free blocks";
constexpr const char* kNoList = "its list of free runs is not whole";
constexpr const char* kNoRoomForHeaders = "blocks of fewer than 12 bytes have no room for the list of free runs";
constexpr const char* kAlike = "free runs cannot be told from earlier ones, which left the same headers";

// As the map says: a block without an entry is free, or allocated for nobody.
std::vector<Run> mappedRuns(const MM_TMMSegInfoWire& entry, const OwnerMap& map)
{
    std::vector<Run> runs;
    for (std::uint32_t block = 0, end; block < map.blocks(); block = end) {
        end = map.endOfSame(block);
        const Owner owner = map.owner(block);
        runs.push_back({entry.pubStartAddr + block * strideOf(entry), end - block, owner == Owner::Nobody, owner});
    }
    return runs;
}

std::uint32_t freeBlocks(const std::vector<Run>& runs)
{
    std::uint32_t blocks = 0;
    for (const Run& run : runs)
        blocks += run.free ? run.blocks : 0;
    return blocks;
}

// The segment without its owners: what lies between free runs is allocated.
std::vector<Run> listedRuns(const MM_TMMSegInfoWire& entry, const std::vector<FreeRun>& list)
{
    const std::uint32_t stride = strideOf(entry);
    const MM_TAddr end = entry.pubStartAddr + entry.ulTotalBlkNum * stride;
    std::vector<Run> runs;
    MM_TAddr at = entry.pubStartAddr;
    const auto allocatedUpTo = [&](MM_TAddr next) {
        if (next != at)
            runs.push_back({at, (next - at) / stride});
        at = next;
    };
    for (const FreeRun& free : list) {
        allocatedUpTo(free.start);
        runs.push_back({free.start, free.blocks, true});
        at += free.blocks * stride;
    }
    allocatedUpTo(end);
    return runs;
}

// Free and allocated from the list, owners from the map; both cover the segment, and agree where blocks have owners.
std::vector<Run> joined(const std::vector<Run>& listed, const std::vector<Run>& mapped, std::uint32_t stride)
{
    std::vector<Run> runs;
    auto entry = mapped.begin();
    std::uint32_t used = 0; // blocks of *entry
    for (const Run& run : listed)
        for (std::uint32_t done = 0; done < run.blocks;) {
            const std::uint32_t blocks = std::min(run.blocks - done, entry->blocks - used);
            runs.push_back({run.start + done * stride, blocks, run.free, entry->owner});
            done += blocks;
            used += blocks;
            if (used == entry->blocks) {
                ++entry;
                used = 0;
            }
        }
    return runs;
}

// What the segment has of free runs, from its list; empty and why.
std::vector<Run> followedRuns(Device& device, Picture& picture, const OwnerMap* map)
{
    const MM_TMMSegInfoWire& entry = picture.entry;
    const BlockMemory memory(device, {{entry.pubStartAddr, entry.ulTotalBlkNum}}, picture.stride());
    const auto lists = freeLists(memory, {entry.ulTotalFreeBlkNum, entry.ulLargestBlkSize}, map);
    if (lists.size() == 1)
        return listedRuns(entry, lists.front());
    if (!lists.empty())
        picture.unknown = kAlike;
    else
        picture.unknown = picture.stride() < kHeaderBytes ? kNoRoomForHeaders : kNoList;
    return {};
}

// So many free blocks, and allocated ones above them.
std::vector<Run> lowestFree(const MM_TMMSegInfoWire& entry, std::uint32_t free)
{
    return listedRuns(entry, std::vector<FreeRun>(free == 0 ? 0 : 1, {entry.pubStartAddr, free}));
}

// What the device does not map stays unknown.
void readRuns(Device& device, Picture& picture)
try {
    const MM_TMMSegInfoWire& entry = picture.entry;
    const std::uint32_t free = entry.ulTotalFreeBlkNum;
    picture.runs.clear();
    picture.unknown.clear();
    if (!isSound(entry)) {
        picture.unknown = kNotSound;
    } else if (entry.stInfoFromApp.ubSegDSType == MM_STACK) {
        // A stack gives from its end downwards, and what the next push can get is all that is free.
        picture.runs = lowestFree(entry, std::min(entry.ulLargestBlkSize, entry.ulTotalBlkNum));
    } else if (entry.pubMapStartAddr == 0) {
        if (free == entry.ulTotalBlkNum)
            picture.runs = lowestFree(entry, free);
        else
            picture.runs = followedRuns(device, picture, nullptr);
    } else {
        const OwnerMap map(device, entry);
        std::vector<Run> mapped = mappedRuns(entry, map);
        const std::uint32_t nobodys = freeBlocks(mapped);
        if (nobodys < free)
            picture.unknown = kOwnedFreeBlocks;
        else if (nobodys == free)
            picture.runs = std::move(mapped);
        else if (const auto listed = followedRuns(device, picture, &map); !listed.empty())
            picture.runs = joined(listed, mapped, picture.stride());
    }
} catch (const ConnectionError&) {
    throw;
} catch (const Error& error) {
    picture.runs.clear();
    picture.unknown = std::string("its memory cannot be mapped: ") + error.what();
}

} // namespace

std::string Picture::name() const
{
    return nameOf(entry.stInfoFromApp.aubSegID);
}

std::uint32_t Picture::stride() const
{
    return strideOf(entry);
}

// The manager works on while a segment is read: what was read counts when the table's entry is the same before and after.
// What does not fit together may have changed and changed back, so it is looked at again.
std::optional<Picture> pictureOf(Device& device, std::uint32_t handle)
{
    constexpr int kAttempts = 8, kUndisturbed = 3;
    const auto entry = usedEntry(device, handle);
    if (!entry)
        return std::nullopt;
    Picture picture{.handle = handle, .entry = *entry, .runs = {}, .unknown = {}};
    int undisturbed = 0;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(attempt));
        readRuns(device, picture);
        const auto after = usedEntry(device, handle);
        if (!after)
            return std::nullopt;
        if (!isSame(*after, picture.entry))
            picture.entry = *after;
        else if (picture.unknown.empty() || ++undisturbed == kUndisturbed)
            return picture;
    }
    picture.runs.clear();
    picture.unknown = kChanged;
    return picture;
}

std::vector<Picture> pictures(Device& device)
{
    std::vector<Picture> all;
    for (std::uint32_t handle = 0; handle < MM_HEAPHANDLE; ++handle)
        if (auto picture = pictureOf(device, handle))
            all.push_back(std::move(*picture));
    return all;
}

} // namespace velmora::tools
