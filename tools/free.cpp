#include "commands.hpp"

#include <iterator>
#include <map>
#include <sstream>

#include "device_command.hpp"
#include "memory.hpp"
#include "units.hpp"
#include "whole_file.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm free - releases blocks

BLOCK is SEGMENT ADDRESS BYTES, as alloc prints it. Of several blocks the last one is released first, as a stack
wants it.
)";

constexpr const char* kNotes =
    R"(The manager believes what it is told, and a wrong release leaves a lock held, with which the controller stands
still. So what the table, the owner map and the free runs say is compared first, and where they contradict a release
nothing is released. In the heap, and where free runs cannot be told, there is less to compare.
)";

constexpr const char* kExamples = R"(  velmora-mm free PAGE 0x95b00000 64K
  velmora-mm free - <held
)";

struct Record {
    std::string segment;
    MM_TAddr address;
    std::uint32_t bytes;
};

std::vector<Record> parseRecords(const Words& words)
{
    constexpr std::size_t kFields = 3;
    if (words.empty() || words.size() % kFields != 0)
        throw UsageError("blocks are SEGMENT ADDRESS BYTES, as alloc prints them; there are " +
                         std::to_string(words.size()) + " words");
    std::vector<Record> records;
    for (std::size_t i = 0; i < words.size(); i += kFields)
        records.push_back({words[i], parseAddress(words[i + 1]), parseSize(words[i + 2], "number of bytes")});
    return records;
}

// The last one first.
std::vector<Release> releasesOf(Device& device, const std::vector<Record>& records)
{
    std::map<std::string, SegmentEntry> found;
    std::vector<Release> releases;
    for (auto record = records.rbegin(); record != records.rend(); ++record) {
        auto segment = found.find(record->segment);
        if (segment == found.end())
            segment = found.emplace(record->segment, findSegment(device, record->segment)).first;
        releases.push_back({segment->second, record->address, record->bytes});
    }
    return releases;
}

} // namespace

int freeBlocks(const Words& words, std::ostream& out, std::ostream& errors)
{
    DeviceCommand command("free", kDescription, deviceNotes(kNotes, kExamples));
    Words blocks;
    std::optional<std::uint8_t> owner;
    bool force = false;
    command.arguments("BLOCK", blocks, "SEGMENT ADDRESS BYTES, any number of times, or - for standard input");
    command.option("--owner", "ID", ownerInto(owner), "refuse what is not this owner's");
    command.forceFlag(force);
    return command.run(words, out, errors, [&](Device& device) {
        if (blocks == Words{"-"}) {
            std::istringstream input(readWholeFile("-"));
            blocks.assign(std::istream_iterator<std::string>(input), {});
            if (blocks.empty())
                return kDone;
        }
        const std::vector<Release> releases = releasesOf(device, parseRecords(blocks));
        requireNone(force ? "" : objectionToReleases(device, releases, owner), force);
        for (const Release& release : releases)
            device.release(release.segment.handle, release.start, release.bytes);
        return kDone;
    });
}

} // namespace velmora::tools
