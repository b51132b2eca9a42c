#include "verify_segment.hpp"

#include <algorithm>
#include <bit>
#include <chrono>
#include <thread>

#include "device_command.hpp"
#include "free_list.hpp"
#include "list_defects.hpp"
#include "segment_entry.hpp"
#include "units.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kList = "list of free runs";
constexpr const char* kMap = "owner map";

// One look at a segment, with the table's entry as it was before.
class Look
{
public:
    Look(Device& device, std::uint32_t handle, const MM_TMMSegInfoWire& entry)
        : device_(device), entry_(entry), subject_{nameOf(entry.stInfoFromApp.aubSegID), handle},
          free_(entry.ulTotalFreeBlkNum), blocks_(entry.ulTotalBlkNum)
    {
    }

    Report run()
    {
        report_.segments = 1;
        if (!isSound(entry_)) {
            find(Rule::Entry, entry_.pubStartAddr,
                 counted(blocks_, "block") + " of " + bytesText(strideOf(entry_)) + " do not lie between " +
                     addressText(entry_.pubStartAddr) + " and " + addressText(entry_.pubEndAddr));
            skip("everything else", "the table's entry does not say where the blocks are");
            return std::move(report_);
        }
        counters();
        if (entry_.stInfoFromApp.ubSegDSType == MM_STACK)
            stack();
        else
            blocks();
        return std::move(report_);
    }

private:
    void find(Rule rule, MM_TAddr address, std::string what)
    {
        report_.findings.push_back({subject_, address, rule, std::move(what)});
    }
    void skip(std::string part, std::string why)
    {
        report_.unchecked.push_back({subject_, std::move(part), std::move(why)});
    }

    void counters()
    {
        const std::uint32_t allocated = entry_.ulTotalAllocBlkNum;
        if (std::uint64_t(free_) + allocated != blocks_)
            find(Rule::Counters, entry_.pubStartAddr,
                 std::to_string(free_) + " free and " + std::to_string(allocated) + " allocated blocks are not " +
                     std::to_string(blocks_));
        if (entry_.ulLargestBlkSize > free_)
            find(Rule::LargestRun, entry_.pubStartAddr,
                 "the largest run, " + counted(entry_.ulLargestBlkSize, "block") + ", is more than the " +
                     std::to_string(free_) + " that are free");
    }

    void stack()
    {
        const std::uint32_t bytes = entry_.stInfoFromApp.ulBlkSize;
        if (!std::has_single_bit(bytes) || bytes < 4)
            return skip("stack", "blocks of " + std::to_string(bytes) +
                                     " bytes are rounded when they are pushed, so that counters and stack part");
        if (entry_.ulLargestBlkSize < free_)
            find(Rule::StackFree, entry_.pubStartAddr,
                 counted(free_, "block") + " are free by the table, " + std::to_string(entry_.ulLargestBlkSize) +
                     " below what was pushed last");
    }

    // Owner map and list are two records of the same blocks: each is checked by itself, then against the other.
    void blocks()
    {
        std::optional<OwnerMap> map;
        std::vector<FreeRun> unowned; // as the map has them
        std::uint32_t unownedBlocks = 0;
        if (entry_.pubMapStartAddr != 0) {
            map.emplace(device_, entry_);
            unused(*map);
            for (std::uint32_t block = 0, end; block < blocks_; block = end) {
                end = map->endOfSame(block);
                if (map->owner(block) != Owner::Nobody)
                    continue;
                unowned.push_back({address(block), end - block});
                unownedBlocks += end - block;
            }
        }
        const bool mapTells = map && unownedBlocks == free_;
        const auto list = strideOf(entry_) < kHeaderBytes ? noList() : theList(map, mapTells, unowned);
        if (map && list && *list != unowned)
            for (Finding& finding : disagreements(*map, *list))
                report_.findings.push_back(std::move(finding));
        else if (map && !list && !mapTells)
            compareCounts(*map, unownedBlocks);
        report_.maps = map ? 1 : 0;
    }

    std::optional<std::vector<FreeRun>> noList()
    {
        skip(kList, "blocks of " + bytesText(strideOf(entry_)) +
                        " have no room for a run's header of 12 bytes, which reaches into the next block");
        return std::nullopt;
    }

    // The list, when it is whole or was read off the map; what is wrong with it is reported.
    std::optional<std::vector<FreeRun>> theList(const std::optional<OwnerMap>& map, bool mapTells,
                                                const std::vector<FreeRun>& unowned)
    {
        if (free_ == 0)
            return std::vector<FreeRun>();
        const FreeCounts counts{free_, entry_.ulLargestBlkSize};
        const BlockMemory memory(device_, {{entry_.pubStartAddr, blocks_}}, strideOf(entry_));
        std::vector<ListDefect> defects;
        if (mapTells && (defects = comparedWith(memory, unowned)).empty())
            return listed(unowned);
        auto lists = freeLists(memory, counts, nullptr);
        if (lists.size() > 1 && map)
            lists = freeLists(memory, counts, &*map);
        // Either the list is broken or the map: the one that takes fewer faults.
        if (mapTells && (lists.size() != 1 || disagreements(*map, lists.front()).size() >= defects.size())) {
            broken(std::move(defects));
            return listed(unowned);
        }
        if (lists.size() == 1)
            return listed(std::move(lists.front()));
        if (lists.empty())
            broken(likelyDefects(memory, counts));
        else
            skip(kList, "headers of earlier free runs, which nobody wrote over, look like another whole list");
        return std::nullopt;
    }

    std::vector<FreeRun> listed(std::vector<FreeRun> runs)
    {
        report_.runs = static_cast<std::uint32_t>(runs.size());
        std::uint32_t longest = 0;
        for (const FreeRun& run : runs)
            longest = std::max(longest, run.blocks);
        if (longest != entry_.ulLargestBlkSize)
            find(Rule::LargestRun, entry_.pubStartAddr,
                 "the longest free run has " + counted(longest, "block") + ", by the table " +
                     std::to_string(entry_.ulLargestBlkSize));
        return runs;
    }

    void broken(std::vector<ListDefect> defects)
    {
        for (ListDefect& defect : defects)
            find(defect.rule, defect.address, std::move(defect.what));
        if (defects.empty())
            find(Rule::RunList, entry_.pubStartAddr,
                 "no whole list of free runs with " + counted(free_, "block") + ", and " +
                     std::to_string(entry_.ulLargestBlkSize) + " in the longest, is in the segment");
    }

    MM_TAddr address(std::uint32_t block) const { return entry_.pubStartAddr + block * strideOf(entry_); }

    void unused(const OwnerMap& map)
    {
        const auto bytes = map.bytes();
        for (std::uint32_t byte = 0; byte < bytes.size() && map.unusedBits(byte) != 0; ++byte)
            if ((bytes[byte] & map.unusedBits(byte)) != 0)
                find(Rule::MapUnused, entry_.pubMapStartAddr + byte,
                     "0x" + addressText(bytes[byte]).substr(8) +
                         " stands in bits of the owner map that are no block's");
    }

    // Each stretch of blocks that the two records disagree on.
    std::vector<Finding> disagreements(const OwnerMap& map, const std::vector<FreeRun>& list) const
    {
        std::vector<Finding> found;
        std::uint32_t block = 0;
        const auto allocatedUpTo = [&](std::uint32_t past) {
            for (std::uint32_t end; block < past; block = end) {
                end = std::min(map.endOfSame(block), past);
                if (map.owner(block) == Owner::Nobody && map.bits() > 1) // 0 is an owner in a map of one bit
                    found.push_back({subject_, address(block), Rule::MapOwner,
                                     counted(end - block, "allocated block") + " without an owner"});
            }
        };
        for (const FreeRun& run : list) {
            allocatedUpTo((run.start - entry_.pubStartAddr) / strideOf(entry_));
            const std::uint32_t past = block + run.blocks;
            for (std::uint32_t end; block < past; block = end) {
                end = std::min(map.endOfSame(block), past);
                if (map.owner(block) != Owner::Nobody)
                    found.push_back({subject_, address(block), Rule::MapFree,
                                     counted(end - block, "free block") + " with owner " +
                                         std::to_string(static_cast<unsigned>(map.owner(block))) +
                                         " in the owner map"});
            }
        }
        allocatedUpTo(blocks_);
        return found;
    }

    // Without a list.
    void compareCounts(const OwnerMap& map, std::uint32_t unowned)
    {
        const std::string counts = counted(unowned, "block") + " without an owner, " + std::to_string(free_) + " free";
        if (unowned < free_)
            find(Rule::MapFree, entry_.pubMapStartAddr, counts);
        else if (map.bits() > 1)
            find(Rule::MapOwner, entry_.pubMapStartAddr, counts);
        else
            skip(kMap, "without the list, free blocks cannot be told from those allocated for owner 0");
    }

    Device& device_;
    const MM_TMMSegInfoWire& entry_;
    Subject subject_;
    std::uint32_t free_, blocks_;
    Report report_;
};

} // namespace

Report checkSegment(Device& device, std::uint32_t handle)
{
    constexpr int kAttempts = 10;
    auto entry = usedEntry(device, handle);
    std::optional<Report> earlier;
    for (int attempt = 0; entry && attempt < kAttempts; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(attempt > 1 ? attempt : 0));
        Report report = Look(device, handle, *entry).run();
        const auto after = usedEntry(device, handle);
        if (after && !isSame(*entry, *after))
            earlier.reset();
        else if (after && (report.findings.empty() || report == earlier))
            return report;
        else
            earlier = std::move(report);
        entry = after;
    }
    if (!entry)
        return {};
    Report report;
    report.segments = 1;
    report.unchecked.push_back(
        {{nameOf(entry->stInfoFromApp.aubSegID), handle}, "everything", "it changed each time that it was read"});
    return report;
}

} // namespace velmora::tools
