#include "commands.hpp"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "device_command.hpp"
#include "units.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm mst - the table of segments, as the manager has it

Everything that an entry says: what was asked for, what was placed, where blocks and owner map lie, how many blocks
are allocated. Entries that no segment has are left out.
)";

constexpr const char* kNotes = R"(No command shows the heap's entry; status reads it from the kernel log.
)";

constexpr const char* kExamples = R"(  velmora-mm mst
  velmora-mm mst PAGE --json
)";

struct Entry {
    std::uint32_t handle;
    MM_TMMSegInfoWire wire;

    // An entry whose segment was placed and could not be started has a name and serves nobody.
    bool isUsed() const { return wire.pfnAlloc != 0 || wire.stInfoFromApp.ulBlkSize != 0; }
};

std::vector<Entry> entries(Device& device, const std::string& segment)
{
    if (!segment.empty()) {
        const SegmentEntry found = findSegment(device, segment);
        if (!found.entry)
            throw Refusal("no command shows the heap's entry; \"velmora-mm status heap\" reads the kernel log");
        return {{found.handle, *found.entry}};
    }
    std::vector<Entry> used;
    for (std::uint32_t handle = 0; handle < MM_HEAPHANDLE; ++handle)
        if (const auto wire = device.segment(static_cast<std::uint8_t>(handle)); wire && Entry{handle, *wire}.isUsed())
            used.push_back({handle, *wire});
    return used;
}

std::string stretch(MM_TAddr start, MM_TAddr end)
{
    return addressText(start) + " to " + addressText(end);
}

void print(std::ostream& out, const Entry& entry)
{
    const MM_TMMSegInfoWire& wire = entry.wire;
    const MM_TSegInfoFromApp& request = wire.stInfoFromApp;
    out << shownName(nameOf(request.aubSegID)) << ": handle " << entry.handle << ", " << typeName(request.ubType)
        << ", " << disciplineName(request.ubSegDSType) << (request.ubSemaphore == MM_YES ? ", locked" : "")
        << (request.ubVM != 0 ? ", overflows into the heap" : "")
        << (wire.pfnAlloc == 0 ? ", not started: it gives no memory" : "") << "\n"
        << "  placed     " << bytesText(request.ulSegSize) << ", " << bytesText(request.ulRetSegSize)
        << " of them can be used\n"
        << "  blocks     " << wire.ulTotalBlkNum << " of " << bytesText(request.ulBlkSize) << ", "
        << stretch(wire.pubStartAddr, wire.pubEndAddr) << "\n"
        << "  allocated  " << wire.ulTotalAllocBlkNum << ", free " << wire.ulTotalFreeBlkNum << ", longest free run "
        << wire.ulLargestBlkSize << "\n"
        << "  owner map  ";
    if (request.ubMap == 0)
        out << "none\n";
    else
        out << unsigned(request.ubMap) << (request.ubMap == 1 ? " bit" : " bits") << " for each block, "
            << stretch(wire.pubMapStartAddr, wire.pubMapEndAddr) << "\n";
}

Json entryJson(const Entry& entry)
{
    const MM_TMMSegInfoWire& wire = entry.wire;
    const MM_TSegInfoFromApp& request = wire.stInfoFromApp;
    const auto address = [](MM_TAddr value) { return value != 0 ? Json(addressText(value)) : Json(); };
    return {{"name", nameOf(request.aubSegID)},
            {"handle", entry.handle},
            {"type", typeName(request.ubType)},
            {"discipline", disciplineName(request.ubSegDSType)},
            {"ownerBits", request.ubMap},
            {"locked", request.ubSemaphore == MM_YES},
            {"overflows", request.ubVM != 0},
            {"started", wire.pfnAlloc != 0},
            {"placedBytes", request.ulSegSize},
            {"usableBytes", request.ulRetSegSize},
            {"blockBytes", request.ulBlkSize},
            {"start", address(wire.pubStartAddr)},
            {"end", address(wire.pubEndAddr)},
            {"mapStart", address(wire.pubMapStartAddr)},
            {"mapEnd", address(wire.pubMapEndAddr)},
            {"blocks", wire.ulTotalBlkNum},
            {"allocatedBlocks", wire.ulTotalAllocBlkNum},
            {"freeBlocks", wire.ulTotalFreeBlkNum},
            {"largestRunBlocks", wire.ulLargestBlkSize}};
}

} // namespace

int mst(const Words& words, std::ostream& out, std::ostream& errors)
{
    DeviceCommand command("mst", kDescription, deviceNotes(kNotes, kExamples));
    std::string segment;
    bool json = false;
    command.optionalArgument("SEGMENT", into(segment), "a segment: its name or its handle; default: all");
    command.jsonFlag(json);
    return command.run(words, out, errors, [&](Device& device) {
        const std::vector<Entry> used = entries(device, segment);
        Json listed = listing("mst", 1);
        listed["entries"] = Json::array();
        for (const Entry& entry : used) {
            if (json)
                listed["entries"].push_back(entryJson(entry));
            else
                print(out, entry);
        }
        if (json)
            printListing(out, listed);
        else if (used.empty())
            out << "There are no segments: the library was not started, or none was created.\n";
        return kDone;
    });
}

} // namespace velmora::tools
