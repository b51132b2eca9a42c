#include "commands.hpp"

#include <map>

#include "device_command.hpp"
#include "memory.hpp"
#include "picture.hpp"
#include "units.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm collect - releases all blocks of an owner

For what a program left that ended. A clean-up takes the blocks of every owner whose ID has all bits of the one that
is named: of 3 and 5 as well where 1 is collected. What was released is printed.
)";

constexpr const char* kNotes =
    R"(Refused without --force: a clean-up that would take other owners' blocks as well; owner 0, whose clean-up takes
everything; and in the heap even IDs, whose clean-up takes what kernel code made permanent. The manager does not
release the run of blocks at a segment's start; what is left is printed. In the heap nothing can be counted.
)";

constexpr const char* kExamples = R"(  velmora-mm collect PAGE 7
)";

// Blocks of each owner that a clean-up takes.
using Blocks = std::map<unsigned, std::uint64_t>;

Blocks blocksFor(const Picture& picture, unsigned id)
{
    Blocks blocks;
    for (const Run& run : picture.runs)
        if (const auto owner = static_cast<unsigned>(run.owner); !run.free && (owner & id) == id)
            blocks[owner] += run.blocks;
    return blocks;
}

std::string listed(const Blocks& blocks)
{
    std::string text;
    for (const auto& [owner, count] : blocks)
        text += (text.empty() ? "" : ", ") + std::to_string(count) + " of owner " + std::to_string(owner);
    return text;
}

std::uint64_t sum(const Blocks& blocks)
{
    std::uint64_t all = 0;
    for (const auto& [owner, count] : blocks)
        all += count;
    return all;
}

std::string objectionTo(const SegmentEntry& segment, const Blocks& blocks, unsigned id)
{
    constexpr unsigned kPermanent = 254;
    if (id == 0)
        return "a clean-up of owner 0 takes every block, whoever holds it";
    if (!segment.entry && (id & kPermanent) == id)
        return "in the heap a clean-up of owner " + std::to_string(id) +
               " takes what was made permanent, which is owner " + std::to_string(kPermanent) + "'s";
    Blocks others = blocks;
    others.erase(id);
    return others.empty() ? ""
                          : "a clean-up of owner " + std::to_string(id) +
                                " takes the blocks of owners whose IDs contain it: " + listed(others);
}

void requireOwner(const SegmentEntry& segment, unsigned id)
{
    if (!segment.entry)
        return;
    const unsigned bits = segment.entry->stInfoFromApp.ubMap;
    const std::string name = "'" + shownName(nameOf(segment.entry->stInfoFromApp.aubSegID)) + "'";
    if (bits == 0)
        throw Refusal(name + " has no owner map: nothing records who holds its blocks, and nothing would be released");
    if (id >= 1U << bits)
        throw Refusal(std::to_string(id) + " is no owner in " + name + ", whose IDs end at " +
                      std::to_string((1U << bits) - 1));
}

int collectOwner(Device& device, const SegmentEntry& segment, std::uint8_t id, bool force, std::ostream& out)
{
    requireOwner(segment, id);
    const auto before = pictureOf(device, segment.handle);
    const Blocks wanted = before ? blocksFor(*before, id) : Blocks();
    requireNone(objectionTo(segment, wanted, id), force);
    device.collectGarbage(segment.handle, id);
    const auto after = before ? pictureOf(device, segment.handle) : std::nullopt;
    if (!after || !before->unknown.empty() || !after->unknown.empty()) {
        out << "done; how many blocks were released cannot be told\n";
        return kDone;
    }
    const Blocks left = blocksFor(*after, id);
    Blocks released = wanted;
    for (const auto& [owner, count] : left)
        released[owner] -= std::min(released[owner], count);
    std::erase_if(released, [](const auto& entry) { return entry.second == 0; });
    out << "released " << bytesText(sum(released) * before->stride()) << " in " << sum(released)
        << (sum(released) == 1 ? " block" : " blocks") << (released.empty() ? "" : ": " + listed(released)) << "\n";
    if (!left.empty())
        out << "left: " << listed(left) << "\n";
    return kDone;
}

} // namespace

int collect(const Words& words, std::ostream& out, std::ostream& errors)
{
    DeviceCommand command("collect", kDescription, deviceNotes(kNotes, kExamples));
    std::string segment;
    std::uint8_t owner = 0;
    bool force = false;
    command.argument("SEGMENT", into(segment), kSegmentHelp);
    command.argument("OWNER", ownerInto(owner), "an ID, 0 to 255");
    command.forceFlag(force);
    return command.run(words, out, errors, [&](Device& device) {
        return collectOwner(device, findSegment(device, segment), owner, force, out);
    });
}

} // namespace velmora::tools
