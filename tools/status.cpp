#include "commands.hpp"

#include <numeric>
#include <optional>

#include <nlohmann/json.hpp>

#include "device_command.hpp"
#include "heap.hpp"
#include "kernel_log.hpp"
#include "picture.hpp"
#include "table.hpp"
#include "units.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm status - segments and how much of them is used

A line for each segment: total, used and free bytes, the longest run of free blocks (the most that one
allocation can get), how many runs there are, and how cut up the free memory is: 0 where it is one run, towards
1 where it is many small ones (1 - longest run / free).
)";

constexpr const char* kNotes =
    R"(The number of runs is read from memory while others go on working; - where it cannot be told. No command shows
the heap: the manager is asked to print it on the kernel log and the log is read, where it can be (--no-heap leaves
both alone). The manager keeps no peak: "velmora-mm watch" sees one while it runs, "velmora-mm plan" in a recording.
)";

constexpr const char* kExamples = R"(  velmora-mm status
  velmora-mm status BAND
  velmora-mm status --json --device unix:/tmp/mm.sock
)";

double fragmentation(std::uint64_t longest, std::uint64_t free)
{
    return free == 0 ? 0 : 1 - static_cast<double>(longest) / static_cast<double>(free);
}

// What a row says, of a segment or of the whole heap.
struct Use {
    std::uint64_t total = 0, used = 0, free = 0, largest = 0; // bytes
    std::optional<std::size_t> runs;                          // of free blocks
};

Use useOf(const Picture& picture)
{
    const MM_TMMSegInfoWire& entry = picture.entry;
    const std::uint64_t stride = picture.stride();
    Use use{entry.ulTotalBlkNum * stride, entry.ulTotalAllocBlkNum * stride, entry.ulTotalFreeBlkNum * stride,
            entry.ulLargestBlkSize * stride, std::nullopt};
    if (picture.unknown.empty())
        use.runs = static_cast<std::size_t>(std::ranges::count_if(picture.runs, &Run::free));
    return use;
}

Use useOf(const Heap& heap)
{
    Use sum;
    for (const HeapPiece& piece : heap.pieces) {
        const std::uint64_t block = piece.blockBytes;
        sum.total += piece.blocks * block;
        sum.free += piece.freeBlocks * block;
        sum.largest = piece.longestRun * block;
    }
    sum.used = sum.total - sum.free;
    return sum;
}

void addRow(Table& table, const std::string& name, std::uint32_t handle, const Use& use)
{
    char ratio[16];
    std::snprintf(ratio, sizeof ratio, "%.2f", fragmentation(use.largest, use.free));
    table.add({name, std::to_string(handle), roundedBytes(use.total), roundedBytes(use.used), roundedBytes(use.free),
               roundedBytes(use.largest), use.runs ? std::to_string(*use.runs) : "-", ratio});
}

void printTable(std::ostream& out, const std::vector<Picture>& segments, const std::optional<Heap>& heap)
{
    Table table({"SEGMENT", ">HANDLE", ">TOTAL", ">USED", ">FREE", ">LARGEST", ">RUNS", ">FRAG"});
    for (const Picture& picture : segments)
        addRow(table, shownName(picture.name()), picture.handle, useOf(picture));
    if (heap && !heap->pieces.empty())
        addRow(table, "heap", MM_HEAPHANDLE, useOf(*heap));
    if (table.empty())
        out << "There are no segments: the library was not started, or none was created.\n";
    else
        table.print(out);
    if (heap && !heap->unknown.empty())
        out << "The heap is not shown: " << heap->unknown << "\n";
}

Json useJson(const Use& use)
{
    return {{"totalBytes", use.total},
            {"usedBytes", use.used},
            {"freeBytes", use.free},
            {"largestFreeBytes", use.largest},
            {"freeRuns", use.runs ? Json(*use.runs) : Json()},
            {"fragmentation", fragmentation(use.largest, use.free)},
            {"peakBytes", nullptr}};
}

Json segmentJson(const Picture& picture)
{
    const MM_TSegInfoFromApp& request = picture.entry.stInfoFromApp;
    Json json{{"name", picture.name()},
              {"handle", picture.handle},
              {"type", typeName(request.ubType)},
              {"discipline", disciplineName(request.ubSegDSType)},
              {"blockBytes", request.ulBlkSize},
              {"ownerBits", request.ubMap},
              {"locked", request.ubSemaphore == MM_YES},
              {"overflows", request.ubVM != 0},
              {"start", addressText(picture.entry.pubStartAddr)},
              {"end", addressText(picture.entry.pubEndAddr)}};
    json.update(useJson(useOf(picture)));
    return json;
}

Json heapJson(const Heap& heap)
{
    if (heap.pieces.empty())
        return nullptr;
    Json json{{"blockBytes", heap.pieces.front().blockBytes}};
    json.update(useJson(useOf(heap)));
    json["pieces"] = Json::array();
    for (const HeapPiece& piece : heap.pieces)
        json["pieces"].push_back({{"start", addressText(piece.start)},
                                  {"end", addressText(piece.end)},
                                  {"totalBytes", std::uint64_t(piece.blocks) * piece.blockBytes},
                                  {"freeBytes", std::uint64_t(piece.freeBlocks) * piece.blockBytes}});
    return json;
}

void printJson(std::ostream& out, const std::string& device, const std::vector<Picture>& segments,
               const std::optional<Heap>& heap)
{
    Json json = listing("status", 1);
    json["device"] = device;
    json["segments"] = Json::array();
    for (const Picture& picture : segments)
        json["segments"].push_back(segmentJson(picture));
    json["heap"] = heap ? heapJson(*heap) : Json();
    json["heapUnknown"] = !heap ? Json("it was not asked for") : heap->unknown.empty() ? Json() : Json(heap->unknown);
    printListing(out, json);
}

// For completion in a shell: quick, and nothing is printed on the kernel log for it.
void printNames(std::ostream& out, Device& device)
{
    for (std::uint32_t handle = 0; handle < MM_HEAPHANDLE; ++handle)
        if (const auto entry = device.segment(static_cast<std::uint8_t>(handle)); entry && entry->pfnAlloc != 0)
            out << segmentWord({handle, entry}) << "\n";
    out << "heap\n";
}

} // namespace

int status(const Words& words, std::ostream& out, std::ostream& errors)
{
    DeviceCommand command("status", kDescription, deviceNotes(kNotes, kExamples));
    std::string segment;
    bool json = false, noHeap = false, names = false;
    command.optionalArgument("SEGMENT", into(segment), std::string(kSegmentHelp) + "; default: all");
    command.jsonFlag(json);
    command.flag("--no-heap", noHeap, "leave the heap out, and the kernel log alone");
    command.flag("--names", names, "");
    return command.run(words, out, errors, [&](Device& device) {
        if (names) {
            printNames(out, device);
            return kDone;
        }
        const std::optional<SegmentEntry> only =
            segment.empty() ? std::nullopt : std::optional(findSegment(device, segment));
        std::vector<Picture> segments;
        if (!only)
            segments = pictures(device);
        else if (only->entry)
            segments.push_back(pictureOf(device, only->handle).value());
        std::optional<Heap> heap;
        if (!noHeap && (!only || !only->entry))
            heap = readHeap(device, command.device());
        if (json)
            printJson(out, deviceName(command.device()), segments, heap);
        else
            printTable(out, segments, heap);
        return kDone;
    });
}

} // namespace velmora::tools
