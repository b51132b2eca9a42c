#include "map_text.hpp"

#include <algorithm>
#include <array>
#include <span>

#include "terminal.hpp"
#include "units.hpp"

namespace velmora::tools {

namespace {

constexpr unsigned kLetters = 26;

// A character of a picture.
struct Cell {
    std::string glyph;
    std::string colour = {}; // the parameters of the ANSI sequence; none: as all text
    bool operator==(const Cell&) const = default;
};

// Which letter an owner has: where there are more owners than letters, those that hold most have one. Letters are given in
// the order of the IDs, so that they stay as long as the owners do.
class Letters
{
public:
    explicit Letters(std::vector<Holding> holdings)
    {
        std::erase_if(holdings, [](const Holding& holding) { return holding.owner == Owner::Nobody; });
        std::ranges::stable_sort(holdings, std::ranges::greater(), &Holding::bytes);
        hasOthers_ = holdings.size() > kLetters;
        holdings.resize(std::min<std::size_t>(holdings.size(), kLetters));
        std::ranges::sort(holdings, {}, &Holding::owner);
        holdings_ = std::move(holdings);
    }

    const std::vector<Holding>& holdings() const { return holdings_; } // of the owners with a letter
    bool hasOthers() const { return hasOthers_; }

    // The place of an owner's letter; nullopt for one that has none.
    std::optional<unsigned> place(Owner owner) const
    {
        const auto found = std::ranges::find(holdings_, owner, &Holding::owner);
        return found == holdings_.end() ? std::nullopt
                                        : std::optional(static_cast<unsigned>(found - holdings_.begin()));
    }

private:
    std::vector<Holding> holdings_;
    bool hasOthers_ = false;
};

// Black on one of the six colours that every terminal has.
std::string colourOf(unsigned place)
{
    return "30;4" + std::to_string(1 + place % 6);
}

// The least of 1 to 7, then 8, 10, 12, 14, 16, 20 and so on, that is not below value: few different scales, none more than a
// quarter too coarse.
std::uint64_t roundScale(std::uint64_t value)
{
    std::uint64_t unit = 1;
    while ((value + unit - 1) / unit > 7)
        unit *= 2;
    return std::max<std::uint64_t>((value + unit - 1) / unit * unit, 1);
}

std::uint64_t divideUp(std::uint64_t value, std::uint64_t by)
{
    return (value + by - 1) / by;
}

class Drawing
{
public:
    Drawing(const MemoryMap& map, const MapStyle& style) : map_(map), style_(style), letters_(map.holdings) {}

    std::string text()
    {
        drawArea();
        for (const Picture& segment : map_.segments)
            drawSegment(segment);
        drawLegend();
        return std::move(text_);
    }

private:
    // Where lines have room for them, rows begin with their address.
    bool hasAddresses() const { return style_.columns >= 40; }
    unsigned frame() const { return hasAddresses() ? 13 : 2; }
    unsigned cellsOfRow() const
    {
        const unsigned room = style_.columns - frame();
        return room < 16 ? room : room / 16 * 16;
    }

    std::string glyph(const char* ascii, const char* utf8) const { return style_.asciiOnly ? ascii : utf8; }
    void say(const std::string& sentence, unsigned indent = 0) { text_ += wrapped(sentence, style_.columns, indent); }

    // Cells of one scale, in rows.
    void drawRows(std::span<const Cell> cells, std::uint64_t start, std::uint64_t bytesOfCell)
    {
        for (std::size_t first = 0; first < cells.size(); first += cellsOfRow()) {
            if (hasAddresses())
                text_ += addressText(static_cast<std::uint32_t>(start + first * bytesOfCell)) + " ";
            drawRow(cells.subspan(first, std::min<std::size_t>(cellsOfRow(), cells.size() - first)));
        }
    }

    void drawRow(std::span<const Cell> cells)
    {
        text_ += glyph("|", "│");
        std::string colour;
        for (const Cell& cell : cells) {
            switchColour(colour, cell.colour);
            text_ += cell.glyph;
        }
        switchColour(colour, {});
        text_ += glyph("|", "│") + "\n";
    }

    void switchColour(std::string& current, const std::string& wanted)
    {
        if (!style_.colour || current == wanted)
            return;
        text_ += "\033[" + (wanted.empty() ? "0" : wanted) + "m";
        current = wanted;
    }

    void drawArea();
    std::vector<Cell> areaCells(std::uint64_t bytesOfCell) const;
    void sayStretch(const Stretch& stretch);
    std::string meaningOf(const Stretch& stretch) const;
    void drawSegment(const Picture& segment);
    void sayFree(const Picture& segment);
    void drawUse(const Picture& segment);
    std::vector<Cell> segmentCells(const Picture& segment, std::uint32_t blocksOfCell);
    Cell cellOf(std::uint32_t free, std::span<const std::uint32_t, 256> owned);
    void drawLegend();
    std::string drawHolding(const std::string& sign, const std::string& colour, const std::string& meaning);

    const MemoryMap& map_;
    const MapStyle& style_;
    const Letters letters_;
    bool partsAreDrawn_ = false, nobodyIsDrawn_ = false, freeIsDrawn_ = false;
    std::string text_;
};

void Drawing::drawArea()
{
    const std::uint64_t bytes = map_.area.end - map_.area.start;
    if (bytes == 0)
        return say(shownName(map_.device) + ": no table shows anything: the library was not started");
    const std::uint64_t scale = roundScale(divideUp(bytes, cellsOfRow()));
    say(shownName(map_.device) + ": " + roundedBytes(bytes) + " from " + addressText(map_.area.start) + " to " +
        addressText(map_.area.end));
    say("a character is " + roundedBytes(scale), 1);
    drawRows(areaCells(scale), map_.area.start, scale);
    for (const Stretch& stretch : map_.stretches)
        sayStretch(stretch);
    if (!map_.heapUnknown.empty())
        say("The heap is not shown: " + map_.heapUnknown);
    if (!map_.areaIsKnown)
        say("The device does not say where the area ends: --area names the module's parameter.");
}

// The name of what lies there, then dashes; an asterisk where several things share a character.
std::vector<Cell> Drawing::areaCells(std::uint64_t bytesOfCell) const
{
    const std::size_t count = divideUp(map_.area.end - map_.area.start, bytesOfCell);
    std::vector<Cell> cells(count);
    for (const Stretch& stretch : map_.stretches) {
        const std::size_t first = (stretch.start - map_.area.start) / bytesOfCell;
        const std::size_t end = divideUp(stretch.end - map_.area.start, bytesOfCell);
        const bool isKnown = stretch.kind != Stretch::Kind::Unknown;
        const std::string name = shownName(stretch.name);
        std::size_t written = 0;
        for (std::size_t at = first; at < end; ++at) {
            if (!cells[at].glyph.empty())
                cells[at].glyph = "*";
            else if (isKnown)
                cells[at].glyph = written < name.size() ? std::string(1, name[written++]) : glyph("-", "─");
            else
                cells[at].glyph = "?";
        }
    }
    return cells;
}

void Drawing::sayStretch(const Stretch& stretch)
{
    std::string name = shownName(stretch.name), bytes = roundedBytes(stretch.end - stretch.start);
    name.resize(std::max<std::size_t>(name.size(), 4), ' ');
    bytes.insert(0, bytes.size() < 8 ? 8 - bytes.size() : 0, ' ');
    say(addressText(stretch.start) + "  " + name + "  " + bytes + "  " + meaningOf(stretch));
}

std::string Drawing::meaningOf(const Stretch& stretch) const
{
    switch (stretch.kind) {
    case Stretch::Kind::Segment: return "segment " + std::to_string(stretch.handle);
    case Stretch::Kind::Row: return "kept for a fixed segment that nobody created";
    case Stretch::Kind::Heap: return "a piece of the heap, " + roundedBytes(stretch.free) + " free";
    case Stretch::Kind::Unknown: break;
    }
    return map_.heapUnknown.empty() ? "no segment's" : "not shown by any table: the heap's, or nobody's";
}

void Drawing::drawSegment(const Picture& segment)
{
    const std::uint32_t blocks = segment.entry.ulTotalBlkNum, stride = segment.stride();
    text_ += "\n";
    say(shownName(segment.name()) + ", segment " + std::to_string(segment.handle) + ": " +
        roundedBytes(std::uint64_t(blocks) * stride) + " in " + counted(blocks, "block") + " of " +
        roundedBytes(stride));
    if (!segment.unknown.empty() || blocks == 0)
        return drawUse(segment);
    sayFree(segment);
    const std::uint64_t rows = std::min<std::uint64_t>(style_.rows, divideUp(blocks, cellsOfRow()));
    const auto scale = static_cast<std::uint32_t>(roundScale(divideUp(blocks, rows * cellsOfRow())));
    say("a character is " + counted(scale, "block") +
            (scale == 1 ? "" : ", " + roundedBytes(std::uint64_t(scale) * stride)),
        1);
    drawRows(segmentCells(segment, scale), segment.entry.pubStartAddr, std::uint64_t(scale) * stride);
}

void Drawing::sayFree(const Picture& segment)
{
    std::uint32_t runs = 0, longest = 0, free = 0;
    for (const Run& run : segment.runs)
        if (run.free) {
            ++runs;
            free += run.blocks;
            longest = std::max(longest, run.blocks);
        }
    if (free == 0)
        return say("nothing is free", 1);
    const std::string where = runs == 1 ? "in one run"
                                        : "in " + counted(runs, "run") + ", the longest " + std::to_string(longest) +
                                              " (" + roundedBytes(std::uint64_t(longest) * segment.stride()) + ")";
    say(std::to_string(free) + " free (" + roundedBytes(std::uint64_t(free) * segment.stride()) + ") " + where, 1);
}

// How much is allocated, where nobody can tell what.
void Drawing::drawUse(const Picture& segment)
{
    const std::uint32_t blocks = segment.entry.ulTotalBlkNum, free = std::min(segment.entry.ulTotalFreeBlkNum, blocks);
    say(std::to_string(free) + " free, the longest run " + std::to_string(segment.entry.ulLargestBlkSize), 1);
    if (!segment.unknown.empty())
        say("only counted, not where: " + segment.unknown, 1);
    if (blocks == 0)
        return;
    std::vector<Cell> cells(cellsOfRow(), Cell{" "});
    const std::size_t used = (std::uint64_t(blocks - free) * cells.size() + blocks / 2) / blocks;
    std::fill_n(cells.begin(), used, Cell{glyph("=", "█")});
    text_ += hasAddresses() ? " allocated " : "";
    drawRow(cells);
}

std::vector<Cell> Drawing::segmentCells(const Picture& segment, std::uint32_t blocksOfCell)
{
    std::vector<Cell> cells;
    std::array<std::uint32_t, 256> owned{};
    std::uint32_t free = 0, filled = 0;
    const auto finish = [&] {
        cells.push_back(cellOf(free, owned));
        owned.fill(0);
        free = filled = 0;
    };
    for (const Run& run : segment.runs)
        for (std::uint32_t left = run.blocks; left != 0;) {
            const std::uint32_t part = std::min(left, blocksOfCell - filled);
            (run.free ? free : owned[static_cast<std::size_t>(run.owner)]) += part;
            filled += part;
            left -= part;
            if (filled == blocksOfCell)
                finish();
        }
    if (filled != 0)
        finish();
    return cells;
}

// Capital letters where all is one owner's, small ones for the owner of most where not.
Cell Drawing::cellOf(std::uint32_t free, std::span<const std::uint32_t, 256> owned)
{
    const auto most = std::ranges::max_element(owned);
    if (*most == 0) {
        freeIsDrawn_ = true;
        return {glyph(".", "·")};
    }
    const bool isWhole = free == 0 && std::ranges::count(owned, 0U) == 255;
    const auto owner = static_cast<Owner>(most - owned.begin());
    if (owner == Owner::Nobody) {
        nobodyIsDrawn_ = true;
        return {isWhole ? "#" : "+", "30;47"};
    }
    const auto place = letters_.place(owner);
    if (!place)
        return {"&", "30;47"};
    partsAreDrawn_ |= !isWhole;
    return {std::string(1, static_cast<char>((isWhole ? 'A' : 'a') + *place)), colourOf(*place)};
}

std::string Drawing::drawHolding(const std::string& sign, const std::string& colour, const std::string& meaning)
{
    return style_.colour && !colour.empty() ? "\033[" + colour + "m" + sign + "\033[0m" + meaning : sign + meaning;
}

void Drawing::drawLegend()
{
    constexpr unsigned kWidth = 24, kLeast = 19; // of an owner: "A owner 255 99.9 MiB", and blanks
    text_ += letters_.holdings().empty() ? "" : "\n";
    const unsigned perLine = std::max(1U, (style_.columns + kWidth - kLeast - 1) / kWidth);
    unsigned number = 0;
    for (const Holding& holding : letters_.holdings()) {
        std::string meaning = " owner " + std::to_string(static_cast<unsigned>(holding.owner)) + " ";
        const std::string bytes = roundedBytes(holding.bytes);
        meaning.append(meaning.size() + bytes.size() < kLeast ? kLeast - meaning.size() - bytes.size() : 0, ' ');
        meaning += bytes;
        const bool isLast = ++number % perLine == 0 || number == letters_.holdings().size();
        text_ += drawHolding(std::string(1, static_cast<char>('A' + number - 1)), colourOf(number - 1), meaning) +
                 (isLast ? "\n" : std::string(kWidth - kLeast - 1, ' '));
    }
    if (map_.segments.empty())
        return;
    text_ += "\n";
    if (freeIsDrawn_)
        say(glyph(".", "·") + " free");
    if (nobodyIsDrawn_)
        say("# allocated, recorded for nobody; + partly so");
    if (letters_.hasOthers())
        say("& owners that hold less than these");
    if (partsAreDrawn_)
        say("a small letter: partly that owner's");
}

} // namespace

std::string mapText(const MemoryMap& map, const MapStyle& style)
{
    return Drawing(map, style).text();
}

} // namespace velmora::tools
