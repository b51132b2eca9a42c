#include "free_list.hpp"

#include <algorithm>

namespace velmora::tools {

namespace {

class Search
{
public:
    Search(const BlockMemory& memory, const FreeCounts& counts, const OwnerMap* map)
        : memory_(memory), counts_(counts), map_(map)
    {
    }

    // Looks for a list that begins at one of these blocks.
    void from(std::uint32_t first, std::uint32_t past)
    {
        for (std::uint32_t block = first; block < past && lists_.size() < kEnough; ++block) {
            const Header header = memory_.header(block);
            if (header.back == 0 && fits(block, header) && (header.next != 0 || header.size == counts_.free))
                follow(block, header);
        }
    }

    std::vector<std::vector<FreeRun>> take() { return std::move(lists_); }

private:
    static constexpr std::size_t kEnough = 2;

    // A run that may stand in the list, the last one or one below the next.
    bool fits(std::uint32_t block, const Header& header) const
    {
        if (header.size == 0 || header.size > counts_.largest.value_or(counts_.free) ||
            header.size > memory_.room(block))
            return false;
        return header.next == 0 ||
               (header.next > memory_.endOf(block, header.size) && memory_.blockAt(header.next) != memory_.blocks());
    }

    bool isNobodys(std::uint32_t block, std::uint32_t blocks) const
    {
        return map_ == nullptr || (map_->owner(block) == Owner::Nobody && map_->endOfSame(block) >= block + blocks);
    }

    void follow(std::uint32_t block, Header header)
    {
        std::vector<FreeRun> runs;
        std::uint32_t free = 0, largest = 0;
        for (;;) {
            free += header.size;
            largest = std::max(largest, header.size);
            if (free > counts_.free || !isNobodys(block, header.size))
                return;
            runs.push_back({memory_.address(block), header.size});
            if (header.next == 0)
                break;
            block = memory_.blockAt(header.next);
            header = memory_.header(block);
            if (header.back != runs.back().start || !fits(block, header))
                return;
        }
        if (free == counts_.free && largest == counts_.largest.value_or(largest))
            lists_.push_back(std::move(runs));
    }

    const BlockMemory& memory_;
    const FreeCounts& counts_;
    const OwnerMap* map_;
    std::vector<std::vector<FreeRun>> lists_;
};

} // namespace

std::vector<std::vector<FreeRun>> freeLists(const BlockMemory& memory, const FreeCounts& counts, const OwnerMap* map)
{
    if (counts.free == 0)
        return {{}};
    if (counts.free > memory.blocks())
        return {};
    Search search(memory, counts, map);
    const std::uint32_t past = memory.blocks() - counts.free + 1; // all free blocks lie at the first run or above it
    if (map == nullptr) {
        search.from(0, past);
        return search.take();
    }
    for (std::uint32_t block = 0, end; block < past; block = end) {
        end = map->endOfSame(block);
        if (map->owner(block) == Owner::Nobody)
            search.from(block, std::min(end, past));
    }
    return search.take();
}

} // namespace velmora::tools
