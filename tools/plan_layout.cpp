#include "plan_layout.hpp"

#include <algorithm>
#include <bit>
#include <cctype>
#include <cstdio>
#include <optional>
#include <sstream>

#define TOML_EXCEPTIONS 1
#include <toml++/toml.h>

#include "units.hpp"

namespace velmora::tools {

namespace {

constexpr std::uint32_t kPageBytes = 4096;
constexpr std::uint32_t kMostArea = 960U << 20;                           // that a simulated controller has room for
constexpr std::uint32_t kAreaStart = 0x95000000, kAreaMargins = 2U << 20; // of a simulated controller
constexpr std::uint32_t kLeastBlock = 16; // what the manager writes into a free block fits

// A file's nodes, and where they stand.
class File
{
public:
    explicit File(const std::string& name) : name_(name) {}

    [[noreturn]] void refuse(const toml::node& node, const std::string& why) const
    {
        throw LayoutError(name_ + ", line " + std::to_string(node.source().begin.line) + ": " + why);
    }

    std::uint32_t bytes(const toml::node& node, const std::string& key) const
    {
        std::optional<std::uint64_t> value;
        if (const auto* const number = node.as_integer(); number != nullptr && **number > 0)
            value = static_cast<std::uint64_t>(**number);
        else if (const auto* const text = node.as_string())
            value = parseBytes(**text);
        if (!value || *value == 0 || *value > 0xFFFFFFFF)
            refuse(node, key + " is a number of bytes, as 4096, \"64K\" or \"8MiB\"");
        return static_cast<std::uint32_t>(*value);
    }

    bool yes(const toml::node& node, const std::string& key) const
    {
        if (const auto* const value = node.as_boolean())
            return **value;
        refuse(node, key + " is true or false");
    }

    unsigned width(const toml::node& node) const
    {
        if (const auto* const value = node.as_integer())
            for (const int width : {0, 1, 2, 4, 8})
                if (**value == width)
                    return static_cast<unsigned>(width);
        refuse(node, "map is a number of bits for each block: 0, 1, 2, 4 or 8");
    }

    const toml::table& table(const toml::node& node, const std::string& key) const
    {
        if (const auto* const value = node.as_table())
            return *value;
        refuse(node, key + " is a table");
    }

private:
    std::string name_;
};

std::string segmentNames(const PlanRecording& recording)
{
    std::string text;
    for (const auto& segment : recording.segments)
        text += (text.empty() ? "" : ", ") + segment.name;
    return text.empty() ? "none" : text;
}

void readSegment(const File& file, const toml::table& table, const PlanRecording::Segment& recorded,
                 PlanSegment& segment)
{
    for (const auto& [key, node] : table) {
        const std::string_view word = key.str();
        if (word == "bytes" && segment.bytes == 0)
            file.refuse(node, recorded.isHeap()
                                  ? "the heap has no bytes of its own: it takes what is left of area"
                                  : "a fixed segment has no bytes of its own: the manager's table has them");
        if (word == "bytes") {
            segment.bytes = file.bytes(node, "bytes");
        } else if (word == "block") {
            segment.block = file.bytes(node, "block");
            if (!std::has_single_bit(segment.block) || segment.block < kLeastBlock)
                file.refuse(node, "block is a power of two, 16 or more");
        } else if (word == "map") {
            segment.map = file.width(node);
        } else if (word == "overflow") {
            segment.overflow = file.yes(node, "overflow");
        } else {
            file.refuse(node, "unknown key '" + std::string(word) + "': a segment has bytes, block, map and overflow");
        }
    }
}

bool fits(unsigned map, std::uint32_t owner)
{
    return map <= 1 ? owner <= map : owner >= 1 && owner < 1U << map;
}

} // namespace

PlanLayout layoutOf(const PlanRecording& recording)
{
    PlanLayout layout{recording.area, {}};
    for (const auto& segment : recording.segments)
        layout.segments.push_back({segment.request.ubType == MM_FIXED ? 0 : segment.request.ulSegSize,
                                   segment.request.ulBlkSize, segment.request.ubMap, segment.request.ubVM != 0});
    return layout;
}

PlanLayout readLayout(const std::string& content, const std::string& name, const PlanRecording& recording)
{
    toml::table document;
    try {
        document = toml::parse(content);
    } catch (const toml::parse_error& error) {
        throw LayoutError(name + ", line " + std::to_string(error.source().begin.line) + ": " +
                          std::string(error.description()));
    }
    const File file(name);
    PlanLayout layout = layoutOf(recording);
    for (const auto& [key, node] : document) {
        if (key.str() == "area") {
            layout.area = file.bytes(node, "area");
            if (layout.area % kPageBytes != 0 || layout.area > kMostArea)
                file.refuse(node, "area is made of whole pages of 4096 bytes, 960 MiB at most");
            continue;
        }
        if (key.str() != "segment")
            file.refuse(node, "unknown key '" + std::string(key.str()) + "': a layout has area and [segment.NAME]");
        for (const auto& [segmentKey, segmentNode] : file.table(node, "segment")) {
            const std::string segmentName(segmentKey.str());
            const auto known = std::ranges::find(recording.segments, segmentName, &PlanRecording::Segment::name);
            if (known == recording.segments.end())
                file.refuse(segmentNode,
                            "the recording has no segment '" + segmentName + "'; it has " + segmentNames(recording));
            readSegment(file, file.table(segmentNode, "segment." + segmentName), *known,
                        layout.segments[static_cast<std::size_t>(known - recording.segments.begin())]);
        }
    }
    return layout;
}

std::string layoutText(const PlanLayout& layout, const PlanRecording& recording)
{
    const auto size = [](std::uint32_t bytes) {
        std::string text = bytesText(bytes);
        std::erase(text, ' ');
        return "\"" + text + "\"";
    };
    std::ostringstream text;
    text << "# A layout for velmora-mm plan.\narea = " << size(layout.area)
         << "  # managed memory; the module's area has 1 MiB more at each end, as 95000000-" << std::hex
         << kAreaStart + kAreaMargins + layout.area << std::dec << "\n";
    for (std::size_t at = 0; at < layout.segments.size(); ++at) {
        const PlanSegment& segment = layout.segments[at];
        const std::string& name = recording.segments[at].name;
        const bool bare =
            std::ranges::all_of(name, [](unsigned char c) { return std::isalnum(c) != 0 || c == '_' || c == '-'; });
        text << "\n[segment." << (bare ? name : "'" + name + "'") << "]\n";
        if (segment.bytes != 0)
            text << "bytes = " << size(segment.bytes) << "\n";
        text << "block = " << size(segment.block) << "\nmap = " << segment.map
             << "\noverflow = " << (segment.overflow ? "true" : "false") << "\n";
    }
    return text.str();
}

std::string unfit(const PlanLayout& layout, const PlanRecording& recording)
{
    for (const PlanOperation& operation : recording.operations) {
        if (operation.kind != PlanOperation::Kind::Malloc && operation.kind != PlanOperation::Kind::Collect)
            continue;
        const auto& recorded = recording.segments[operation.segment];
        const PlanSegment& segment = layout.segments[operation.segment];
        if (segment.map != recorded.request.ubMap && !fits(segment.map, operation.owner))
            return "an owner map of width " + std::to_string(segment.map) + " in " + recorded.name +
                   " cannot hold owner " + hexText(operation.owner) + " (line " + std::to_string(operation.line) + ")";
    }
    return "";
}

} // namespace velmora::tools
