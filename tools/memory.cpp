#include "memory.hpp"

#include <algorithm>
#include <map>

#include "picture.hpp"
#include "rows.hpp"
#include "units.hpp"

namespace velmora::tools {

namespace {

constexpr std::uint32_t kPageBytes = 4096;
constexpr std::uint32_t kWordBytes = 4; // a stack's pieces are rounded to it

std::string quoted(const Picture& picture)
{
    return "'" + shownName(picture.name()) + "'";
}

std::string stretchText(std::uint64_t start, std::uint64_t bytes)
{
    return bytesText(bytes) + " at " + addressText(static_cast<std::uint32_t>(start));
}

// Of the segment, its owner map included.
bool contains(const Picture& picture, std::uint64_t address)
{
    const MM_TMMSegInfoWire& entry = picture.entry;
    return address >= (entry.pubMapStartAddr != 0 ? entry.pubMapStartAddr : entry.pubStartAddr) &&
           address < entry.pubEndAddr;
}

const Picture* pictureAt(const std::vector<Picture>& segments, MM_TAddr address)
{
    const auto found =
        std::ranges::find_if(segments, [&](const Picture& picture) { return contains(picture, address); });
    return found == segments.end() ? nullptr : &*found;
}

// The run that holds an address; null when it is not known.
const Run* runAt(const Picture& picture, MM_TAddr address)
{
    const auto after = std::ranges::upper_bound(picture.runs, address, {}, &Run::start);
    return after == picture.runs.begin() ? nullptr : &*std::prev(after);
}

// The first free run that the blocks reach into; null where there is none, or nothing is known.
const Run* freeRunIn(const Picture& picture, std::uint64_t start, std::uint64_t end)
{
    if (!picture.unknown.empty())
        return nullptr;
    const Run* run = runAt(picture, static_cast<MM_TAddr>(start));
    for (const Run* last = picture.runs.data() + picture.runs.size(); run != nullptr && run != last && run->start < end;
         ++run)
        if (run->free && run->start + std::uint64_t(run->blocks) * picture.stride() > start)
            return run;
    return nullptr;
}

std::string objectionToOwners(const Picture& picture, MM_TAddr start, std::uint64_t end,
                              std::optional<std::uint8_t> owner)
{
    if (!picture.unknown.empty() || picture.entry.stInfoFromApp.ubMap == 0)
        return "";
    const Run* run = runAt(picture, start);
    const Owner wanted = owner ? static_cast<Owner>(*owner) : run->owner;
    for (; run != picture.runs.data() + picture.runs.size() && run->start < end; ++run)
        if (run->owner != wanted)
            return "the block at " + addressText(std::max(run->start, start)) + " is owner " +
                   std::to_string(static_cast<unsigned>(run->owner)) + "'s, not " +
                   std::to_string(static_cast<unsigned>(wanted)) + "'s";
    return "";
}

// Releases one after the other, as they will be asked for, against what the segments were before the first of them.
class ReleaseChecks
{
public:
    ReleaseChecks(Device& device, std::optional<std::uint8_t> owner) : segments_(pictures(device)), owner_(owner) {}

    std::string objectionToNext(const Release& release)
    {
        const Picture* const around = pictureAt(segments_, release.start);
        if (!release.segment.entry)
            return around ? addressText(release.start) + " lies in " + quoted(*around) + ", not in the heap" : "";
        const auto picture = std::ranges::find(segments_, release.segment.handle, &Picture::handle);
        if (picture == segments_.end())
            return "the segment is gone";
        const MM_TSegInfoFromApp& request = picture->entry.stInfoFromApp;
        const bool isStack = request.ubSegDSType == MM_STACK;
        if (!around && request.ubVM != 0 && !isStack)
            return ""; // it may have overflowed into the heap
        const std::uint64_t blocks = (std::uint64_t(release.bytes) - 1) / request.ulBlkSize + 1;
        const std::uint64_t end = release.start + blocks * picture->stride();
        if (release.start < picture->entry.pubStartAddr || end > picture->entry.pubEndAddr)
            return stretchText(release.start, release.bytes) + " do not lie among the blocks of " + quoted(*picture) +
                   ", " + addressText(picture->entry.pubStartAddr) + " to " + addressText(picture->entry.pubEndAddr);
        return isStack ? objectionToPop(*picture, release.start, static_cast<std::uint32_t>(blocks))
                       : objectionToBlocks(*picture, release.start, end);
    }

private:
    // A stack takes back what it gave last. Its free blocks, and with them its top, go on counting here.
    std::string objectionToPop(Picture& picture, MM_TAddr start, std::uint32_t blocks) const
    {
        MM_TMMSegInfoWire& entry = picture.entry;
        if (picture.stride() % kWordBytes != 0)
            return ""; // its top does not lie where the count of blocks says
        const std::uint32_t top = entry.pubStartAddr + entry.ulTotalFreeBlkNum * picture.stride();
        if (start != top)
            return "the stack " + quoted(picture) + " takes back what it gave last, which lies at " + addressText(top) +
                   ", not " + addressText(start);
        if (blocks > entry.ulTotalAllocBlkNum)
            return "the stack " + quoted(picture) + " has only " + std::to_string(entry.ulTotalAllocBlkNum) +
                   " allocated blocks";
        entry.ulTotalFreeBlkNum += blocks;
        entry.ulTotalAllocBlkNum -= blocks;
        return "";
    }

    std::string objectionToBlocks(const Picture& picture, MM_TAddr start, std::uint64_t end)
    {
        if ((start - picture.entry.pubStartAddr) % picture.stride() != 0)
            return "no block of " + quoted(picture) + " begins at " + addressText(start) + ": they lie " +
                   bytesText(picture.stride()) + " apart";
        if (const Run* free = freeRunIn(picture, start, end))
            return "the block at " + addressText(std::max(free->start, start)) + " is free";
        const auto after = released_.lower_bound(start);
        if ((after != released_.end() && after->first < end) ||
            (after != released_.begin() && std::prev(after)->second > start))
            return "the block at " + addressText(start) + " is to be released twice";
        released_.emplace(start, end);
        return objectionToOwners(picture, start, end, owner_);
    }

    std::vector<Picture> segments_;
    std::optional<std::uint8_t> owner_;
    std::map<std::uint64_t, std::uint64_t> released_; // before: start and end
};

} // namespace

MM_TAddr findAddress(Device& device, const std::string& where)
{
    if (const auto address = parseNumber(where))
        return *address;
    const std::size_t plus = where.rfind('+');
    const SegmentEntry segment = findSegment(device, where.substr(0, plus));
    if (!segment.entry)
        throw Refusal("where the heap begins cannot be read; an address was expected");
    const std::uint64_t offset = plus == where.npos ? 0 : parseBytes(where.substr(plus + 1)).value_or(UINT32_MAX);
    const std::uint32_t size = segment.entry->pubEndAddr - segment.entry->pubStartAddr;
    if (offset >= size)
        throw UsageError("'" + shownName(where) + "' is no place in the segment: +BYTES below " + bytesText(size) +
                         " was expected");
    return segment.entry->pubStartAddr + static_cast<std::uint32_t>(offset);
}

void requireMemory(Device& device, MM_TAddr start, std::uint32_t bytes)
{
    const std::uint64_t end = std::uint64_t(start) + bytes;
    for (const std::uint64_t address : {std::uint64_t(start), end - 1})
        try {
            if (address > UINT32_MAX)
                throw Refusal(stretchText(start, bytes) + " reach past the end of the address space");
            device.map(static_cast<MM_TAddr>(address - address % kPageBytes), kPageBytes);
        } catch (const ConnectionError&) {
            throw;
        } catch (const Error& error) {
            const bool isMissing = error.code() == std::errc::io_error || error.code() == std::errc::invalid_argument;
            throw Refusal((isMissing ? "there is no memory at " : "memory cannot be mapped at ") +
                          addressText(static_cast<std::uint32_t>(address)) + " (" + error.what() + ")");
        }
}

std::string objectionToWriting(Device& device, MM_TAddr start, std::uint32_t bytes)
{
    const std::uint64_t end = std::uint64_t(start) + bytes;
    const std::string what = stretchText(start, bytes);
    const std::vector<Picture> segments = pictures(device);
    if (const Picture* const picture = pictureAt(segments, start)) {
        if (start < picture->entry.pubStartAddr)
            return what + " reach into the owner map of " + quoted(*picture);
        if (end > picture->entry.pubEndAddr)
            return what + " reach past the end of " + quoted(*picture) + ", " + addressText(picture->entry.pubEndAddr);
        if (const Run* free = freeRunIn(*picture, start, end))
            return what + " reach into free blocks of " + quoted(*picture) + " at " + addressText(free->start) +
                   ", in which its list lies";
        return "";
    }
    for (const Row& row : placedRows(device))
        if (start >= row.entry.pubStartAddr && end <= std::uint64_t(row.entry.pubStartAddr) + row.entry.ulSize)
            return "";
    return what + " lie in no segment (the heap's memory cannot be told from other memory)";
}

std::string objectionToReleases(Device& device, const std::vector<Release>& releases, std::optional<std::uint8_t> owner)
{
    ReleaseChecks checks(device, owner);
    for (const Release& release : releases)
        if (std::string objection = checks.objectionToNext(release); !objection.empty())
            return objection;
    return "";
}

std::string objectionToOwner(const SegmentEntry& segment, std::uint8_t owner)
{
    if (!segment.entry)
        return ""; // no command shows how wide the heap's map is
    const unsigned bits = segment.entry->stInfoFromApp.ubMap;
    const std::string name = "'" + shownName(nameOf(segment.entry->stInfoFromApp.aubSegID)) + "'";
    if (bits == 0)
        return owner == 0 ? "" : name + " has no owner map, so there is no owner " + std::to_string(owner);
    const unsigned first = bits == 1 ? 0 : 1, last = (1U << bits) - 1;
    return owner >= first && owner <= last
               ? ""
               : std::to_string(owner) + " is no owner in " + name + ", whose map has entries of " +
                     std::to_string(bits) + (bits == 1 ? " bit" : " bits") + ": " + std::to_string(first) + " to " +
                     std::to_string(last) + " (--owner)";
}

void requireNone(const std::string& objection, bool force)
{
    if (!objection.empty() && !force)
        throw Refusal(objection + " (--force does it all the same)");
}

} // namespace velmora::tools
