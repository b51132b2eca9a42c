#include "commands.hpp"

#include <bit>
#include <optional>

#include "device_command.hpp"
#include "memory.hpp"
#include "rows.hpp"
#include "units.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm create - creates a segment

Its bytes are those that the manager places: an owner map lies in front of the blocks and takes some of them. What
was made is printed, with the bytes that can be used.
)";

constexpr const char* kNotes =
    R"(Types: float (in free memory), align (the same, from a multiple of the block size on), fixed (the row of the fixed
table that has its name, and that row's size), heap (all memory that is left, so it comes last). The heap's handle is
49, and the commands call it heap whatever its name is.
Refused without --force is what the manager does badly: blocks whose size is no power of two or below 16 bytes (a
stack: 4), a stack with a lock or that overflows, a heap beside gaps that are smaller than its blocks.
)";

constexpr const char* kExamples = R"(  velmora-mm create PAGE --bytes 32M --owner-bits 8
  velmora-mm create UEV --type fixed --block 512
  velmora-mm create HEAP --type heap --block 4K --owner-bits 8
)";

struct Request {
    std::string name, type = "float", discipline = "list";
    std::uint32_t bytes = 0, blockBytes = 4096;
    std::uint8_t ownerBits = 0;
    std::optional<bool> lock;
    bool overflow = false, force = false;

    bool isStack() const { return discipline == "stack"; }
    bool isHeap() const { return type == "heap"; }
    bool isFixed() const { return type == "fixed"; }
    bool isLocked() const { return lock.value_or(!isStack()); }
};

void requireOneOf(const std::string& word, const std::string& what, std::initializer_list<const char*> choice)
{
    std::string all;
    for (const char* const name : choice) {
        if (word == name)
            return;
        all += (all.empty() ? "" : ", ") + std::string(name);
    }
    throw UsageError("'" + word + "' is no " + what + ": " + all + " were expected");
}

void requireUsable(const Request& request)
{
    if (request.name.empty() || request.name.size() > 4)
        throw UsageError("'" + request.name + "' is no segment's name: one to four characters were expected");
    requireOneOf(request.type, "type", {"float", "align", "fixed", "heap"});
    requireOneOf(request.discipline, "discipline", {"list", "stack"});
    requireOneOf(std::to_string(request.ownerBits), "width of an owner map", {"0", "1", "2", "4", "8"});
    const bool sized = !request.isHeap() && !request.isFixed();
    if (sized != (request.bytes != 0))
        throw UsageError(sized ? "--bytes is missing: how large the segment is to be"
                               : "a " + request.type +
                                     " segment has the size that it finds: --bytes does not go with it");
    if (request.isStack() && request.ownerBits != 0)
        throw UsageError("a stack has no owner map: --owner-bits does not go with it");
}

// What the manager takes and keeps badly.
std::string objectionTo(const Request& request)
{
    const std::uint32_t least = request.isStack() ? 4 : 16;
    if (!std::has_single_bit(request.blockBytes) || request.blockBytes < least)
        return "the manager's arithmetic is wrong for blocks of " + std::to_string(request.blockBytes) +
               " bytes: a power of two from " + std::to_string(least) + " on was expected";
    if (request.isStack() && request.isLocked())
        return "one wrong release from a stack with a lock holds the lock for ever";
    if (request.isStack() && (request.overflow || request.isHeap()))
        return "what a stack took from the heap cannot be released through it";
    return "";
}

// What the manager refuses with a bare code, in words.
void requirePossible(Device& device, const Request& request)
{
    if (placedRows(device).empty())
        throw Refusal("there is no memory yet: \"velmora-mm start\" comes first");
    for (const SegmentUsage& segment : segments(device))
        if (segment.name == request.name)
            throw Refusal("there is a segment '" + shownName(request.name) + "' already, handle " +
                          std::to_string(static_cast<std::uint32_t>(segment.handle)));
}

// The heap with the look at its neighbours that only the library takes.
MM_TSegInfoFromApp createHeapBesideNoGaps(Device& device, const Request& request)
{
    const Segment heap = Segment::create(
        device,
        {.name = request.name, .blockBytes = request.blockBytes, .ownerBits = request.ownerBits, .place = Place::Heap});
    MM_TSegInfoFromApp made{};
    made.hulHandle = MM_HEAPHANDLE;
    made.ulRetSegSize = heap.bytes().value_or(0);
    return made;
}

MM_TSegInfoFromApp createSegment(Device& device, const Request& request)
{
    if (request.isHeap() && !request.force)
        return createHeapBesideNoGaps(device, request);
    const auto type = request.isFixed() ? MM_FIXED : request.type == "align" ? MM_FLOATALIGN : MM_FLOAT;
    return device.createSegment({.name = request.name,
                                 .bytes = request.bytes,
                                 .blockBytes = request.blockBytes,
                                 .mapBits = request.ownerBits,
                                 .type = static_cast<std::uint8_t>(type),
                                 .discipline = static_cast<std::uint8_t>(request.isStack() ? MM_STACK : MM_LINKEDLIST),
                                 .locked = request.isLocked(),
                                 .overflowsToHeap = request.overflow});
}

void describe(Device& device, const Request& request, const MM_TSegInfoFromApp& made, std::ostream& out)
{
    out << shownName(request.name) << ": handle " << made.hulHandle;
    if (made.hulHandle == MM_HEAPHANDLE) {
        out << ", the heap, " << bytesText(made.ulRetSegSize) << " can be used\n";
        return;
    }
    const auto entry = device.segment(static_cast<std::uint8_t>(made.hulHandle));
    if (!entry || entry->pfnAlloc == 0)
        throw Refusal("'" + shownName(request.name) +
                      "' was placed and could not be started: it gives no memory, and " + "its name and handle " +
                      std::to_string(made.hulHandle) + " are used up");
    out << ", " << entry->ulTotalBlkNum << " blocks of " << bytesText(request.blockBytes) << ", "
        << bytesText(made.ulRetSegSize) << " can be used, " << addressText(entry->pubStartAddr) << " to "
        << addressText(entry->pubEndAddr) << "\n";
}

void addOptions(DeviceCommand& command, Request& request, bool& lock, bool& noLock)
{
    command.argument("NAME", into(request.name), "one to four characters");
    command.option("--bytes", "SIZE", sizeInto(request.bytes), "how much memory is to be placed, owner map included");
    command.option("--block", "SIZE", sizeInto(request.blockBytes), "bytes of a block; default 4096");
    command.option("--owner-bits", "BITS", ownerInto(request.ownerBits),
                   "bits of an owner's ID: 0 (no owner map, the default), 1, 2, 4 or 8");
    command.option("--type", "TYPE", into(request.type), "float (default), align, fixed or heap");
    command.option("--discipline", "KIND", into(request.discipline), "list (default) or stack");
    command.flag("--lock", lock, "each allocation and release runs under a lock; default for a list");
    command.flag("--no-lock", noLock, "they do not; default for a stack");
    command.flag("--overflow", request.overflow, "what does not fit is taken from the heap, recorded for nobody");
    command.forceFlag(request.force);
}

} // namespace

int create(const Words& words, std::ostream& out, std::ostream& errors)
{
    DeviceCommand command("create", kDescription, deviceNotes(kNotes, kExamples));
    Request request;
    bool lock = false, noLock = false;
    addOptions(command, request, lock, noLock);
    command.require([&] {
        if (lock && noLock)
            throw UsageError("either --lock or --no-lock, not both");
        if (lock || noLock)
            request.lock = lock;
        requireUsable(request);
    });
    return command.run(words, out, errors, [&](Device& device) {
        requireNone(objectionTo(request), request.force);
        requirePossible(device, request);
        if (request.isFixed())
            request.name = findRow(device, request.name).name();
        describe(device, request, createSegment(device, request), out);
        return kDone;
    });
}

} // namespace velmora::tools
