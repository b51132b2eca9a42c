#include "commands.hpp"

#include <bit>

#include <nlohmann/json.hpp>

#include "device_command.hpp"
#include "memory.hpp"
#include "units.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm alloc - allocates blocks of a segment

A line for each: SEGMENT ADDRESS BYTES, which is what free takes. The blocks stay allocated when the command has
ended.
)";

constexpr const char* kNotes =
    R"(Bytes are rounded up to whole blocks. A segment that was created with --overflow takes what does not fit from the
heap, as many of the heap's blocks, recorded for nobody; a line on standard error says so.
)";

constexpr const char* kExamples = R"(  velmora-mm alloc PAGE 64K --owner 7
  velmora-mm free $(velmora-mm alloc PAGE 64K --owner 7)
  velmora-mm alloc PAGE 4K --owner 7 --count 100 >held; velmora-mm free - <held
)";

struct Request {
    std::string segment;
    std::uint32_t bytes = 0, count = 1;
    std::uint8_t owner = 0;
    bool json = false;
};

std::string noRoom(Device& device, const Request& request, const SegmentEntry& segment, std::size_t done)
{
    std::string text = "there is no room in '" + shownName(segmentWord(segment)) + "' for " + bytesText(request.bytes);
    if (request.count > 1)
        text += " more, after " + std::to_string(done) + " of " + std::to_string(request.count);
    if (!segment.entry)
        return text;
    const auto now = device.segment(static_cast<std::uint8_t>(segment.handle)).value();
    const std::uint64_t block = std::bit_floor(now.stInfoFromApp.ulBlkSize);
    return text + ": " + bytesText(now.ulTotalFreeBlkNum * block) + " are free, the longest run has " +
           bytesText(now.ulLargestBlkSize * block);
}

bool isIn(const SegmentEntry& segment, MM_TAddr address)
{
    return !segment.entry || (address >= segment.entry->pubStartAddr && address < segment.entry->pubEndAddr);
}

Json blocksJson(const Request& request, const SegmentEntry& segment, const std::vector<MM_TAddr>& blocks)
{
    Json json = listing("alloc", 1);
    json["blocks"] = Json::array();
    for (const MM_TAddr address : blocks)
        json["blocks"].push_back({{"segment", segmentWord(segment)},
                                  {"address", addressText(address)},
                                  {"bytes", request.bytes},
                                  {"owner", isIn(segment, address) ? request.owner : 0},
                                  {"inHeap", !segment.entry || !isIn(segment, address)}});
    return json;
}

int allocate(Device& device, const Request& request, std::ostream& out, std::ostream& errors)
{
    const SegmentEntry segment = findSegment(device, request.segment);
    if (const std::string objection = objectionToOwner(segment, request.owner); !objection.empty())
        throw Refusal(objection);
    std::vector<MM_TAddr> blocks;
    while (blocks.size() < request.count) {
        const auto address = device.allocate(segment.handle, request.bytes, request.owner);
        if (!address)
            break;
        blocks.push_back(*address);
        if (!request.json) // at once: what is allocated is known even if the next one ends the controller
            out << segmentWord(segment) << " " << addressText(*address) << " " << request.bytes << std::endl;
        if (!isIn(segment, *address))
            errors << "velmora-mm alloc: " << addressText(*address) << " lies in the heap, recorded for nobody\n";
    }
    if (request.json)
        printListing(out, blocksJson(request, segment, blocks));
    if (blocks.size() < request.count)
        throw Refusal(noRoom(device, request, segment, blocks.size()));
    return kDone;
}

} // namespace

int alloc(const Words& words, std::ostream& out, std::ostream& errors)
{
    DeviceCommand command("alloc", kDescription, deviceNotes(kNotes, kExamples));
    Request request;
    command.argument("SEGMENT", into(request.segment), kSegmentHelp);
    command.argument("BYTES", sizeInto(request.bytes), "of each block: 4096, 64K, 8MiB");
    command.option("--owner", "ID", ownerInto(request.owner), "for whom; default 0, nobody");
    command.option("--count", "N", countInto(request.count), "how many; default 1");
    command.jsonFlag(request.json);
    return command.run(words, out, errors, [&](Device& device) { return allocate(device, request, out, errors); });
}

} // namespace velmora::tools
