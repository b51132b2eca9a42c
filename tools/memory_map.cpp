#include "memory_map.hpp"

#include <algorithm>
#include <charconv>

#include <nlohmann/json.hpp>

#include "lib/socket_client.hpp"
#include "lib/socket_protocol.hpp"
#include "units.hpp"

namespace velmora::tools {

namespace {

constexpr MM_TAddr kMargin = 1 << 20; // of the reserved memory, unused at each end
constexpr unsigned kTableRows = 5;

// Eight hexadecimal digits at most.
std::optional<MM_TAddr> hexadecimal(std::string_view text)
{
    MM_TAddr value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

std::vector<Stretch> segmentStretches(const std::vector<Picture>& segments)
{
    std::vector<Stretch> stretches;
    for (const Picture& segment : segments) {
        const MM_TMMSegInfoWire& entry = segment.entry;
        const MM_TAddr start = entry.pubMapStartAddr != 0 ? entry.pubMapStartAddr : entry.pubStartAddr;
        stretches.push_back({Stretch::Kind::Segment, start, entry.pubEndAddr, segment.name(), segment.handle});
    }
    return stretches;
}

// A fixed segment takes the place of its row.
void addRows(Device& device, std::vector<Stretch>& stretches)
{
    for (unsigned number = 0; number < kTableRows; ++number) {
        const auto row = device.tableRow(static_cast<std::uint8_t>(number));
        if (!row || row->pubStartAddr == 0 || row->ulSize == 0)
            continue;
        const MM_TAddr end = row->pubStartAddr + row->ulSize;
        const auto inRow = [&](const Stretch& stretch) {
            return stretch.start >= row->pubStartAddr && stretch.start < end;
        };
        if (const auto segment = std::ranges::find_if(stretches, inRow); segment == stretches.end())
            stretches.push_back({Stretch::Kind::Row, row->pubStartAddr, end, nameOf(row->aubCFGID)});
        else
            segment->start = row->pubStartAddr, segment->end = std::max(segment->end, end);
    }
}

void addHeap(const Heap& heap, std::vector<Stretch>& stretches)
{
    for (const HeapPiece& piece : heap.pieces)
        stretches.push_back({.kind = Stretch::Kind::Heap,
                             .start = piece.start,
                             .end = piece.end,
                             .name = "heap",
                             .free = std::uint64_t(piece.freeBlocks) * piece.blockBytes});
}

// What the tables show, and between it what they do not. The parts of a damaged table that overlap show the lower one.
std::vector<Stretch> wholeArea(std::vector<Stretch> shown, const Area& area)
{
    std::ranges::sort(shown, {}, &Stretch::start);
    std::vector<Stretch> all;
    MM_TAddr reached = area.start;
    for (Stretch& stretch : shown) {
        stretch.start = std::max(stretch.start, reached);
        stretch.end = std::min(stretch.end, area.end);
        if (stretch.start >= stretch.end)
            continue;
        if (stretch.start > reached)
            all.push_back({Stretch::Kind::Unknown, reached, stretch.start});
        reached = stretch.end;
        all.push_back(std::move(stretch));
    }
    if (reached < area.end)
        all.push_back({Stretch::Kind::Unknown, reached, area.end});
    return all;
}

Area reachOf(const std::vector<Stretch>& stretches)
{
    if (stretches.empty())
        return {};
    return {std::ranges::min(stretches, {}, &Stretch::start).start, std::ranges::max(stretches, {}, &Stretch::end).end};
}

std::vector<Holding> holdingsOf(const std::vector<Picture>& segments)
{
    std::map<Owner, std::uint64_t> bytes;
    for (const Picture& segment : segments)
        for (const Run& run : segment.runs)
            if (!run.free)
                bytes[run.owner] += std::uint64_t(run.blocks) * segment.stride();
    std::vector<Holding> holdings;
    holdings.reserve(bytes.size());
    for (const auto& [owner, held] : bytes)
        holdings.push_back({owner, held});
    return holdings;
}

const char* nameOfKind(Stretch::Kind kind)
{
    switch (kind) {
    case Stretch::Kind::Segment: return "segment";
    case Stretch::Kind::Row: return "row";
    case Stretch::Kind::Heap: return "heap";
    case Stretch::Kind::Unknown: break;
    }
    return "unknown";
}

Json stretchFields(const Stretch& stretch)
{
    Json fields = {
        {"kind", nameOfKind(stretch.kind)}, {"start", addressText(stretch.start)}, {"end", addressText(stretch.end)}};
    if (stretch.kind != Stretch::Kind::Unknown)
        fields["name"] = shownName(stretch.name);
    if (stretch.kind == Stretch::Kind::Segment)
        fields["handle"] = stretch.handle;
    if (stretch.kind == Stretch::Kind::Heap)
        fields["freeBytes"] = stretch.free;
    return fields;
}

// Runs are pairs: blocks, and the owner, null for free ones. The first begins at start, each other one where the one before
// it ends.
Json segmentFields(const Picture& segment)
{
    Json runs = Json::array();
    for (const Run& run : segment.runs)
        runs.push_back({run.blocks, run.free ? Json() : Json(static_cast<unsigned>(run.owner))});
    Json fields = {{"handle", segment.handle},
                   {"name", shownName(segment.name())},
                   {"start", addressText(segment.entry.pubStartAddr)},
                   {"strideBytes", segment.stride()},
                   {"blocks", segment.entry.ulTotalBlkNum},
                   {"freeBlocks", segment.entry.ulTotalFreeBlkNum},
                   {"longestRun", segment.entry.ulLargestBlkSize},
                   {"runs", std::move(runs)}};
    fields["unknown"] = segment.unknown.empty() ? Json() : Json(segment.unknown);
    return fields;
}

} // namespace

Area areaOfParameter(const std::string& text)
{
    const std::size_t sign = text.find('-');
    const auto start = hexadecimal(std::string_view(text).substr(0, sign));
    const auto end = sign == text.npos ? std::nullopt : hexadecimal(std::string_view(text).substr(sign + 1));
    if (!start || !end || *end <= *start || *end - *start <= 2 * kMargin)
        throw UsageError(
            "'" + text +
            "' is no area: START-END as in the module's parameter, two hexadecimal numbers more than 2 MiB "
            "apart");
    return {*start + kMargin, *end - kMargin};
}

std::optional<Area> areaOf(const std::string& device)
{
    using namespace protocol;
    constexpr std::string_view kSocket = "unix:";
    if (!device.starts_with(kSocket))
        return std::nullopt;
    std::string path = device.substr(kSocket.size());
    char standard[108];
    if (path.empty() && socket_client::defaultSocket(standard, sizeof standard))
        path = standard;
    socket_client::Connection connection;
    if (socket_client::connectTo(connection, path.c_str()) != 0)
        return std::nullopt;
    Status request{};
    request.header.kind = Kind::Status;
    StatusAnswer status{};
    const int bytes = socket_client::transact(connection, &request, sizeof request, &status, sizeof status);
    socket_client::disconnect(connection);
    return bytes == sizeof status ? std::optional(Area{status.areaStart, status.areaEnd}) : std::nullopt;
}

MemoryMap readMap(Device& device, const std::string& name, std::optional<Area> area, const Heap& heap)
{
    MemoryMap map;
    map.device = name;
    map.segments = pictures(device);
    std::vector<Stretch> shown = segmentStretches(map.segments);
    addRows(device, shown);
    addHeap(heap, shown);
    map.heapUnknown = heap.unknown;
    map.areaIsKnown = area.has_value();
    map.area = area ? *area : reachOf(shown);
    map.stretches = wholeArea(std::move(shown), map.area);
    map.holdings = holdingsOf(map.segments);
    return map;
}

Json mapListing(const MemoryMap& map)
{
    Json fields = listing("map", 1);
    fields["device"] = shownName(map.device);
    fields["area"] = {
        {"start", addressText(map.area.start)}, {"end", addressText(map.area.end)}, {"known", map.areaIsKnown}};
    fields["heapUnknown"] = map.heapUnknown.empty() ? Json() : Json(map.heapUnknown);
    fields["stretches"] = Json::array();
    for (const Stretch& stretch : map.stretches)
        fields["stretches"].push_back(stretchFields(stretch));
    fields["segments"] = Json::array();
    for (const Picture& segment : map.segments)
        fields["segments"].push_back(segmentFields(segment));
    return fields;
}

} // namespace velmora::tools
