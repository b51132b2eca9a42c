#include "watch_view.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "device_command.hpp"
#include "segment_entry.hpp"
#include "units.hpp"

namespace velmora::tools {

namespace {

using Kind = WatchPiece::Kind;

constexpr std::size_t kHistory = 1000, kLogLines = 200;
constexpr std::array<const char*, 4> kOrderNames = {"handle", "use", "free", "name"};
constexpr std::array<const char*, 9> kBlocks = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr std::array<const char*, 9> kSigns = {" ", ".", ":", "-", "=", "+", "*", "#", "@"};
constexpr const char* kHelp[] = {
    "s   sort by handle, use, free, name",
    "p   pause, and go on",
    "+ - longer, shorter interval",
    "up down  other segments",
    "h   this help, q quit",
    "",
    "A segment has a bar of its use and its peak; then, newest to the right, what was free and its longest run.",
    "The heap is not watched: the manager shows it on the kernel log only (velmora-mm status).",
};

// Columns that a text takes: of UTF-8 only what is drawn here is in it, a column each.
std::size_t columnsOf(const std::string& text)
{
    return static_cast<std::size_t>(std::ranges::count_if(text, [](char byte) { return (byte & 0xC0) != 0x80; }));
}

std::string padded(std::string text, std::size_t columns, bool right = false)
{
    const std::size_t has = columnsOf(text);
    text.insert(right ? 0 : text.size(), has < columns ? columns - has : 0, ' ');
    return text;
}

std::string cut(const std::string& text, std::size_t columns)
{
    return text.size() <= columns ? text : text.substr(0, columns);
}

std::string secondsText(double seconds)
{
    std::array<char, 32> text;
    std::snprintf(text.data(), text.size(), "%g s", seconds);
    return text.data();
}

class Lines
{
public:
    Lines(const WatchView& view, unsigned columns, unsigned rows, bool asciiOnly)
        : view_(view), columns_(columns), rows_(rows), asciiOnly_(asciiOnly)
    {
    }

    std::vector<WatchLine> all()
    {
        drawHeader();
        if (view_.help)
            drawHelp();
        else
            drawSegments(), drawLog();
        if (rows_ != 0) {
            lines_.resize(rows_ - 1);
            add("h help  q quit  p pause  s sort  + - interval", Kind::Soft);
        }
        return std::move(lines_);
    }

private:
    std::size_t left() const { return rows_ == 0 ? 1000 : rows_ - 1 - lines_.size(); } // rows above the keys
    void add(const std::string& text, Kind kind = Kind::Plain) { lines_.push_back({{cut(text, columns_), kind}}); }

    void drawHeader();
    void drawHelp();
    void drawSegments();
    void drawLog();
    WatchLine use(const WatchedSegment& segment) const;
    WatchLine past(const WatchedSegment& segment) const;
    std::string sparkline(const WatchedSegment& segment, std::uint32_t WatchedSegment::Moment::*what,
                          std::size_t columns) const;
    std::vector<const WatchedSegment*> ordered() const;

    const WatchView& view_;
    const unsigned columns_, rows_;
    const bool asciiOnly_;
    std::vector<WatchLine> lines_;
};

void Lines::drawHeader()
{
    add((view_.paused ? "PAUSED " : "") + view_.time + " " + secondsText(view_.interval) + " by " +
            kOrderNames[static_cast<std::size_t>(view_.order)] + "  " + shownName(view_.device),
        Kind::Title);
}

void Lines::drawHelp()
{
    for (const std::string text : kHelp)
        for (std::size_t at = 0; at == 0 || at < text.size();) {
            std::size_t length = std::min<std::size_t>(columns_, text.size() - at);
            if (const std::size_t blank = text.rfind(' ', at + length);
                at + length < text.size() && blank != text.npos && blank > at)
                length = blank - at;
            add(text.substr(at, length));
            at += length + 1;
        }
}

std::vector<const WatchedSegment*> Lines::ordered() const
{
    std::vector<const WatchedSegment*> segments;
    for (const WatchedSegment& segment : view_.segments)
        segments.push_back(&segment);
    const auto share = [](const WatchedSegment* segment) {
        return segment->blocks == 0 ? 0 : double(segment->used()) / segment->blocks;
    };
    const auto free = [](const WatchedSegment* segment) {
        return std::uint64_t(segment->history.back().free) * segment->stride;
    };
    switch (view_.order) {
    case WatchOrder::Handle: break;
    case WatchOrder::Use: std::ranges::stable_sort(segments, std::ranges::greater(), share); break;
    case WatchOrder::Free: std::ranges::stable_sort(segments, std::ranges::less(), free); break;
    case WatchOrder::Name: std::ranges::stable_sort(segments, std::ranges::less(), &WatchedSegment::name); break;
    }
    return segments;
}

void Lines::drawSegments()
{
    if (view_.segments.empty())
        return add("There are no segments: the library was not started, or none was created.");
    const std::vector<const WatchedSegment*> segments = ordered();
    constexpr std::size_t kRowsOfLog = 4;
    const bool hasPast = left() >= 2 * segments.size() + kRowsOfLog;
    const std::size_t first = std::min(view_.first, segments.size() - 1);
    for (std::size_t number = first; number < segments.size(); ++number) {
        const std::size_t others = segments.size() - number;
        if (left() == 1 && others > 1)
            return add("and " + std::to_string(others) + " more (down)", Kind::Soft);
        lines_.push_back(use(*segments[number]));
        if (hasPast)
            lines_.push_back(past(*segments[number]));
    }
}

// The name, a bar, and as many figures as there is room for.
WatchLine Lines::use(const WatchedSegment& segment) const
{
    const std::uint64_t stride = segment.stride;
    const double share = segment.blocks == 0 ? 0 : double(segment.used()) / segment.blocks;
    std::string figures = " " + padded(std::to_string(std::lround(share * 100)), 3, true) + " %";
    if (columns_ >= 60)
        figures += padded(roundedBytes(segment.used() * stride), 9, true);
    if (columns_ >= 40)
        figures += " of" + padded(roundedBytes(segment.blocks * stride), 9, true);
    if (columns_ >= 60)
        figures += "  peak" + padded(roundedBytes(segment.peak * stride), 9, true);
    const std::size_t room = columns_ - 7 - figures.size();
    const auto used = static_cast<std::size_t>(std::lround(share * static_cast<double>(room)));
    std::string bar;
    for (std::size_t column = 0; column < used; ++column)
        bar += asciiOnly_ ? "#" : "█";
    return {{padded(cut(shownName(segment.name), 4), 5) + "|"},
            {bar, share > 0.9 ? Kind::Full : Kind::Used},
            {std::string(room - used, ' ') + "|" + figures}};
}

WatchLine Lines::past(const WatchedSegment& segment) const
{
    const auto value = [&](std::uint32_t blocks) {
        return padded(roundedBytes(std::uint64_t(blocks) * segment.stride), 8, true) + " ";
    };
    const WatchedSegment::Moment& now = segment.history.back();
    if (columns_ < 60)
        return {{"free "}, {sparkline(segment, &WatchedSegment::Moment::free, columns_ - 6), Kind::Soft}};
    const std::size_t room = (columns_ - 40) / 2;
    return {{"     free " + value(now.free)},
            {padded(sparkline(segment, &WatchedSegment::Moment::free, room), room), Kind::Soft},
            {"  longest " + value(now.longest)},
            {sparkline(segment, &WatchedSegment::Moment::longest, room), Kind::Soft}};
}

// A column for each sample, of eight heights; nothing where there is nothing free.
std::string Lines::sparkline(const WatchedSegment& segment, std::uint32_t WatchedSegment::Moment::*what,
                             std::size_t columns) const
{
    std::string line;
    const std::size_t shown = std::min(columns, segment.history.size());
    for (auto moment = segment.history.end() - static_cast<std::ptrdiff_t>(shown); moment != segment.history.end();
         ++moment) {
        const std::uint64_t eighths =
            segment.blocks == 0 ? 0 : (std::uint64_t((*moment).*what) * 8 + segment.blocks - 1) / segment.blocks;
        line += (asciiOnly_ ? kSigns : kBlocks)[std::min<std::uint64_t>(eighths, 8)];
    }
    return line;
}

void Lines::drawLog()
{
    if (rows_ == 0 || left() < 2)
        return;
    add(view_.logUnknown.empty() ? "kernel log" : shownName(view_.logUnknown), Kind::Soft);
    const std::size_t shown = std::min(left(), view_.log.size());
    for (auto line = view_.log.end() - static_cast<std::ptrdiff_t>(shown); line != view_.log.end(); ++line)
        add(shownName(*line));
}

} // namespace

void WatchView::sample(Device& device)
{
    std::vector<WatchedSegment> seen;
    for (std::uint32_t handle = 0; handle < MM_HEAPHANDLE; ++handle) {
        const auto entry = usedEntry(device, handle);
        if (!entry)
            continue;
        const auto isIt = [&](const WatchedSegment& segment) {
            return segment.handle == handle && segment.start == entry->pubStartAddr &&
                   segment.blocks == entry->ulTotalBlkNum;
        };
        const auto known = std::ranges::find_if(segments, isIt);
        WatchedSegment segment = known != segments.end() ? std::move(*known) : WatchedSegment{.handle = handle};
        segment.name = nameOf(entry->stInfoFromApp.aubSegID);
        segment.start = entry->pubStartAddr;
        segment.blocks = entry->ulTotalBlkNum;
        segment.stride = strideOf(*entry);
        segment.history.push_back({std::min(entry->ulTotalFreeBlkNum, segment.blocks), entry->ulLargestBlkSize});
        if (segment.history.size() > kHistory)
            segment.history.pop_front();
        segment.peak = std::max(segment.peak, segment.used());
        seen.push_back(std::move(segment));
    }
    segments = std::move(seen);
}

void WatchView::addLog(const std::vector<std::string>& lines)
{
    log.insert(log.end(), lines.begin(), lines.end());
    while (log.size() > kLogLines)
        log.pop_front();
}

std::vector<WatchLine> watchLines(const WatchView& view, unsigned columns, unsigned rows, bool asciiOnly)
{
    return Lines(view, columns, rows, asciiOnly).all();
}

} // namespace velmora::tools
