#include "picture.hpp"

#include <bit>

#include "device_command.hpp"

namespace velmora::tools {

namespace {

// The last block of a segment has the lowest bits of the map's last byte.
class OwnerMap
{
public:
    OwnerMap(Device& device, const MM_TMMSegInfoWire& entry)
        : bits_(entry.stInfoFromApp.ubMap), last_(entry.ulTotalBlkNum - 1),
          view_(device.map(entry.pubMapStartAddr, entry.pubMapEndAddr - entry.pubMapStartAddr))
    {
    }

    // Of the block that is so many blocks in.
    Owner owner(std::uint32_t block) const
    {
        const std::uint32_t perByte = 8 / bits_, fromEnd = last_ - block;
        const volatile std::byte& byte = view_.bytes()[view_.bytes().size() - 1 - fromEnd / perByte];
        return static_cast<Owner>(std::to_integer<unsigned>(std::byte(byte)) >> fromEnd % perByte * bits_ &
                                  ((1U << bits_) - 1));
    }

private:
    unsigned bits_;
    std::uint32_t last_; // block
    Mapping view_;
};

// As the map says: a block without an entry is free, or allocated for nobody.
std::vector<Run> mappedRuns(Device& device, const Picture& picture)
{
    const OwnerMap map(device, picture.entry);
    std::vector<Run> runs;
    for (std::uint32_t block = 0; block < picture.entry.ulTotalBlkNum; ++block) {
        const Owner owner = map.owner(block);
        if (runs.empty() || runs.back().owner != owner)
            runs.push_back({picture.entry.pubStartAddr + block * picture.stride(), 0, owner == Owner::Nobody, owner});
        ++runs.back().blocks;
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

void readRuns(Device& device, Picture& picture)
{
    const MM_TMMSegInfoWire& entry = picture.entry;
    const std::uint32_t free = entry.ulTotalFreeBlkNum, all = entry.ulTotalBlkNum;
    const bool isStack = entry.stInfoFromApp.ubSegDSType == MM_STACK;
    if (isStack || free == 0 || free == all) { // a stack gives from its end downwards
        if (free != 0)
            picture.runs.push_back({entry.pubStartAddr, free, true});
        if (free != all && entry.pubMapStartAddr == 0)
            picture.runs.push_back({entry.pubStartAddr + free * picture.stride(), all - free});
    }
    if (entry.pubMapStartAddr != 0) {
        picture.runs = mappedRuns(device, picture);
        if (freeBlocks(picture.runs) != free)
            picture.runs.clear();
    }
    if (picture.runs.empty())
        picture.unknown = "allocated blocks without an owner cannot be told from free ones";
}

} // namespace

std::string Picture::name() const
{
    return nameOf(entry.stInfoFromApp.aubSegID);
}

std::uint32_t Picture::stride() const
{
    return std::bit_floor(entry.stInfoFromApp.ulBlkSize);
}

std::optional<Picture> pictureOf(Device& device, std::uint32_t handle)
{
    if (handle >= MM_HEAPHANDLE)
        return std::nullopt;
    const auto entry = device.segment(static_cast<std::uint8_t>(handle));
    if (!entry || entry->pfnAlloc == 0)
        return std::nullopt;
    Picture picture{.handle = handle, .entry = *entry, .runs = {}, .unknown = {}};
    readRuns(device, picture);
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
