#include "verify_area.hpp"

#include <algorithm>
#include <bit>

#include "area_memory.hpp"
#include "device_command.hpp"
#include "free_list.hpp"
#include "kernel_log.hpp"
#include "list_defects.hpp"
#include "segment_entry.hpp"
#include "units.hpp"

namespace velmora::tools {

namespace {

// Memory of a segment, with its owner map.
struct Place {
    Subject subject;
    MM_TMMSegInfoWire entry;
    MM_TAddr start, end;

    bool isFixed() const { return entry.stInfoFromApp.ubType == MM_FIXED; }
};

struct Layout {
    std::vector<Place> places;         // of segments, in the order of addresses
    std::vector<MM_TMCTInfoWire> rows; // of the table of fixed segments that are placed
    std::optional<MM_TAddr> fixedEnd;  // past the fixed segments; none after one of them was deleted
    std::optional<MM_TAddr> areaEnd;   // of managed memory, where the kernel log says it
    bool hasHeap = false;
};

constexpr std::uint32_t kMostLost = 130; // bytes of a remainder that is not kept as free memory

std::vector<Place> placesOf(Device& device)
{
    std::vector<Place> places;
    for (std::uint32_t handle = 0; handle < MM_HEAPHANDLE; ++handle)
        if (const auto entry = usedEntry(device, handle))
            places.push_back({{nameOf(entry->stInfoFromApp.aubSegID), handle},
                              *entry,
                              entry->pubMapStartAddr != 0 ? entry->pubMapStartAddr : entry->pubStartAddr,
                              entry->pubEndAddr});
    std::sort(places.begin(), places.end(),
              [](const Place& left, const Place& right) { return left.start < right.start; });
    return places;
}

Layout layoutOf(Device& device, const std::vector<std::string>& kernelLog)
{
    Layout layout{.places = placesOf(device), .rows = {}, .fixedEnd = {}, .areaEnd = {}};
    if (const auto memory = managedMemoryIn(kernelLog))
        layout.areaEnd = memory->end;
    // The heap's entry is the one that begins above address 0: the manager compares its bounds, which no command shows.
    layout.hasHeap = !device.contains(MM_HEAPHANDLE, 0);
    std::uint32_t bytes = 0;
    for (std::uint8_t index = 0; index < MM_MAX_MCT_NUM; ++index)
        if (const auto row = device.tableRow(index); row && row->pubStartAddr != 0 && row->ulSize != 0) {
            layout.rows.push_back(*row);
            bytes += row->ulSize;
        }
    if (layout.rows.size() == MM_MAX_MCT_NUM)
        layout.fixedEnd = layout.rows.front().pubStartAddr + bytes;
    return layout;
}

class AreaCheck
{
public:
    AreaCheck(Device& device, const Layout& layout) : device_(device), layout_(layout) {}

    Report run()
    {
        apart();
        inside();
        fixed();
        freeMemory();
        return std::move(report_);
    }

private:
    // Free memory, or what may have been too small to be kept as such.
    struct Stretch {
        MM_TAddr start;
        std::optional<std::uint32_t> bytes; // none: to the end of managed memory, which is not known
        bool mayBeLost;
    };

    void find(const Subject& subject, Rule rule, MM_TAddr address, std::string what)
    {
        report_.findings.push_back({subject, address, rule, std::move(what)});
    }
    void skip(const Subject& subject, std::string part, std::string why)
    {
        report_.unchecked.push_back({subject, std::move(part), std::move(why)});
    }

    void apart()
    {
        const Place* highest = nullptr; // of those so far, by its end
        for (const Place& place : layout_.places) {
            if (highest != nullptr && place.start < highest->end)
                find(place.subject, Rule::Apart, place.start,
                     "'" + highest->subject.segment + "' goes on to " + addressText(highest->end));
            if (highest == nullptr || place.end > highest->end)
                highest = &place;
        }
    }

    void inside()
    {
        for (const Place& place : layout_.places) {
            if (!layout_.rows.empty() && place.start < layout_.rows.front().pubStartAddr)
                find(place.subject, Rule::Inside, place.start,
                     "managed memory begins at " + addressText(layout_.rows.front().pubStartAddr));
            if (layout_.areaEnd && place.end > *layout_.areaEnd)
                find(place.subject, Rule::Inside, place.end, "managed memory ends at " + addressText(*layout_.areaEnd));
            for (const MM_TMCTInfoWire& row : layout_.rows)
                if (!place.isFixed() && place.start < row.pubStartAddr + row.ulSize && row.pubStartAddr < place.end)
                    find(place.subject, Rule::Inside, place.start,
                         "the fixed segment '" + nameOf(row.aubCFGID) + "' has memory up to " +
                             addressText(row.pubStartAddr + row.ulSize));
        }
        if (!layout_.areaEnd)
            skip({}, "end of managed memory",
                 "no command says where it is, and the module's load is not on the kernel log");
    }

    void fixed()
    {
        for (const Place& place : layout_.places) {
            if (!place.isFixed())
                continue;
            const auto row = std::find_if(layout_.rows.begin(), layout_.rows.end(), [&](const MM_TMCTInfoWire& row) {
                return nameOf(row.aubCFGID) == place.subject.segment;
            });
            if (row == layout_.rows.end())
                skip(place.subject, "place", "its row of the table of fixed segments was emptied");
            else if (place.start < row->pubStartAddr || place.end > row->pubStartAddr + row->ulSize)
                find(place.subject, Rule::Fixed, place.start,
                     "its row has " + addressText(row->pubStartAddr) + " to " +
                         addressText(row->pubStartAddr + row->ulSize));
        }
    }

    void freeMemory()
    {
        constexpr const char* kMemory = "list of free memory";
        if (layout_.hasHeap)
            return; // it took the list over
        if (layout_.places.empty())
            return skip({}, kMemory, "there are no segments, and whether the library was started is not known");
        std::string why;
        const std::vector<Stretch> gaps = gapsBetween(why);
        if (!why.empty())
            return skip({}, kMemory, why);
        compare(presentOf(gaps));
    }

    // An address where a segment's blocks or map may begin when it was placed at this one.
    static MM_TAddr aligned(MM_TAddr address, std::uint32_t blockBytes)
    {
        const std::uint32_t unit = blockBytes % 4 == 0 ? blockBytes : 4;
        return address % unit == 0 ? address : (address + unit) & (0 - unit);
    }

    // The memory that no float segment has, from the fixed segments up. Segments are cut off the low end of free memory; an
    // aligned one leaves a gap in front, whatever its size.
    std::vector<Stretch> gapsBetween(std::string& why) const
    {
        if (!layout_.fixedEnd) {
            why = "a row of the table of fixed segments was emptied, and with it where free memory begins";
            return {};
        }
        std::vector<Stretch> gaps;
        MM_TAddr at = *layout_.fixedEnd;
        for (const Place& place : layout_.places) {
            const MM_TSegInfoFromApp& request = place.entry.stInfoFromApp;
            if (place.isFixed())
                continue;
            if (aligned(at, request.ulBlkSize) != place.start) {
                if (request.ubType != MM_FLOATALIGN || !std::has_single_bit(request.ulBlkSize) ||
                    request.ulBlkSize < 4 || place.start < at + kHeaderBytes) {
                    why = "'" + place.subject.segment + "' does not begin where the memory before it ends";
                    return {};
                }
            }
            if (request.ubType == MM_FLOATALIGN && place.start != at) {
                if (place.start - at < kHeaderBytes) {
                    why = "the gap in front of '" + place.subject.segment + "' is smaller than what is written into it";
                    return {};
                }
                gaps.push_back({at, place.start - at, place.start - at <= kMostLost});
                at = place.start;
            }
            at += request.ulSegSize;
        }
        if (!layout_.areaEnd)
            gaps.push_back({at, std::nullopt, true});
        else if (*layout_.areaEnd > at)
            gaps.push_back({at, *layout_.areaEnd - at, *layout_.areaEnd - at <= kMostLost});
        return gaps;
    }

    Header headerAt(MM_TAddr address) const
    {
        const auto bytes = copyOf(device_, address, kHeaderBytes);
        Header header;
        std::copy(bytes.begin(), bytes.end(), reinterpret_cast<std::uint8_t*>(&header));
        return header;
    }

    // Without those that nothing links to and that may have been dropped.
    std::vector<Stretch> presentOf(const std::vector<Stretch>& gaps) const
    {
        std::vector<Stretch> present;
        for (const Stretch& gap : gaps) {
            const auto linksTo = [&](const Stretch& other) {
                const Header header = headerAt(other.start);
                return !other.mayBeLost && (header.next == gap.start || header.back == gap.start);
            };
            const bool onlyOne = gaps.size() == 1 && headerAt(gap.start).size > kMostLost;
            if (!gap.mayBeLost || onlyOne || std::any_of(gaps.begin(), gaps.end(), linksTo))
                present.push_back(gap);
        }
        return present;
    }

    void compare(const std::vector<Stretch>& stretches)
    {
        const auto link = [](MM_TAddr address) { return address == 0 ? std::string("0") : addressText(address); };
        for (std::size_t index = 0; index < stretches.size(); ++index) {
            const Stretch& stretch = stretches[index];
            const Header header = headerAt(stretch.start);
            const MM_TAddr next = index + 1 < stretches.size() ? stretches[index + 1].start : 0;
            const MM_TAddr back = index > 0 ? stretches[index - 1].start : 0;
            if (header.next != next)
                find({}, Rule::MemoryLinked, stretch.start,
                     "the link forward is " + link(header.next) + ", and should be " + link(next));
            if (header.back != back)
                find({}, Rule::MemoryLinked, stretch.start,
                     "the link back is " + link(header.back) + ", and should be " + link(back));
            if (stretch.bytes ? header.size != *stretch.bytes
                              : header.size <= kMostLost || header.size > 0 - stretch.start)
                find({}, Rule::MemorySize, stretch.start,
                     "the stretch has " + std::to_string(header.size) + " bytes, and should have " +
                         (stretch.bytes ? std::to_string(*stretch.bytes) : "what is left of managed memory"));
        }
        report_.memory = static_cast<std::uint32_t>(stretches.size());
    }

    Device& device_;
    const Layout& layout_;
    Report report_;
};

// The heap's pieces, which a display of it left on the kernel log. The display counts what was free then.
class HeapCheck
{
public:
    HeapCheck(Device& device, const Layout& layout, HeapDisplay display)
        : device_(device), layout_(layout), display_(display)
    {
    }

    Report run(const std::vector<HeapPiece>& pieces)
    {
        if (!layout_.hasHeap)
            return {};
        if (pieces.empty()) {
            skip("everything", "no command shows its pieces, and no display of them is on the kernel log: see --heap");
            return std::move(report_);
        }
        skip("owner map", "no command says where it lies and how many bits it has");
        if (places(pieces))
            list(pieces);
        return std::move(report_);
    }

private:
    void skip(std::string part, std::string why)
    {
        report_.unchecked.push_back({kHeap, std::move(part), std::move(why)});
    }

    bool places(const std::vector<HeapPiece>& pieces)
    {
        for (const HeapPiece& piece : pieces) {
            std::string what;
            if (piece.end <= piece.start || piece.blockBytes == 0)
                what = "the piece ends at " + addressText(piece.end);
            for (const Place& place : layout_.places)
                if (piece.start < place.end && place.start < piece.end)
                    what = "'" + place.subject.segment + "' has memory up to " + addressText(place.end);
            if (layout_.areaEnd && piece.end > *layout_.areaEnd)
                what = "managed memory ends at " + addressText(*layout_.areaEnd);
            if (!what.empty() && display_ == HeapDisplay::Past) {
                skip("everything", "the newest display of its pieces is older than the last start of the library");
                return false;
            }
            if (!what.empty())
                report_.findings.push_back({kHeap, piece.start, Rule::HeapPieces, what});
        }
        return report_.findings.empty();
    }

    void list(const std::vector<HeapPiece>& pieces)
    {
        constexpr const char* kList = "list of free runs";
        const std::uint32_t stride = std::bit_floor(pieces.front().blockBytes);
        if (stride < kHeaderBytes)
            return skip(kList, "blocks of " + bytesText(stride) + " have no room for a run's header of 12 bytes");
        std::vector<BlockStretch> stretches;
        std::uint32_t free = 0;
        for (const HeapPiece& piece : pieces) {
            stretches.push_back({piece.start, (piece.end - piece.start) / stride});
            free += piece.freeBlocks;
        }
        const BlockMemory memory(device_, stretches, stride);
        const FreeCounts counts{free, pieces.front().longestRun};
        const auto lists = freeLists(memory, counts, nullptr);
        if (lists.size() == 1)
            report_.runs = static_cast<std::uint32_t>(lists.front().size());
        else if (!lists.empty())
            skip(kList, "headers of earlier free runs, which nobody wrote over, look like another whole list");
        else if (display_ == HeapDisplay::Past)
            skip(kList, "no whole list has the " + std::to_string(free) +
                            " free blocks of the newest display: the heap was used since then, or its list is broken");
        else
            broken(likelyDefects(memory, counts), pieces.front().start, free);
    }

    void broken(std::vector<ListDefect> defects, MM_TAddr start, std::uint32_t free)
    {
        if (defects.empty())
            defects.push_back(
                {start, Rule::RunList, "no whole list of " + std::to_string(free) + " free blocks is in the heap"});
        for (ListDefect& defect : defects)
            report_.findings.push_back({kHeap, defect.address, defect.rule, std::move(defect.what)});
    }

    const Subject kHeap{"heap", MM_HEAPHANDLE};
    Device& device_;
    const Layout& layout_;
    HeapDisplay display_;
    Report report_;
};

} // namespace

Report checkArea(Device& device, const std::vector<std::string>& kernelLog, HeapDisplay display)
{
    const Layout layout = layoutOf(device, kernelLog);
    Report report = AreaCheck(device, layout).run();
    report.add(HeapCheck(device, layout, display).run(heapPieces(kernelLog)));
    return report;
}

} // namespace velmora::tools
