#include <velmora/segment.hpp>

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>

#include "lib/segment_state.hpp"

namespace velmora {

namespace {

constexpr std::uint8_t kHandles = MM_HEAPHANDLE; // whose entries can be read
constexpr std::uint32_t kNodeBytes = 16; // the power of two that holds what is written into a free run, 12 bytes
constexpr std::uint32_t kStackBytes = 4; // what a stack's pieces are rounded to
constexpr std::uint32_t kLeastListBytes = MM_HEAP_BLOCK_SIZE;
constexpr std::uint32_t kForgottenGap = 128; // free memory up to this size does not become a piece of the heap
constexpr unsigned kPermanent = 254;

bool isBlockSize(std::uint32_t bytes, bool stack)
{
    return std::has_single_bit(bytes) && bytes >= (stack ? kStackBytes : kNodeBytes);
}

// A name as entries have it.
void setName(char (&id)[4], const char* call, std::string_view name)
{
    if (name.empty() || name.size() > sizeof id)
        throw Error(call, Errc::BadName, "'" + std::string(name) + "'");
    std::copy(name.begin(), name.end(), id);
}

void requireOwner(const char* call, Owner owner, unsigned bits, bool forCleanUp)
{
    const auto id = static_cast<unsigned>(owner);
    const bool least = forCleanUp || bits > 1 ? id > 0 : true;
    if (!least || id >= 1U << bits || (forCleanUp && bits == 0))
        throw Error(call, Errc::BadOwner, std::to_string(id) + " with " + std::to_string(bits) + " bits");
}

// Bytes to ask for so that this many can be used: blocks, the owner map in whole blocks before them, and one for alignment.
std::uint32_t placedBytes(const char* call, const SegmentOptions& options)
{
    const std::uint64_t block = options.blockBytes;
    const std::uint64_t wanted = (options.bytes + block - 1) / block;
    std::uint64_t all = wanted + 1;
    for (std::uint64_t map = 0; options.ownerBits != 0;) {
        const std::uint64_t mapBytes = all * options.ownerBits / 8 + 2;
        const std::uint64_t needed = (mapBytes + block - 1) / block;
        if (needed <= map)
            break;
        map = needed;
        all = wanted + 1 + map;
    }
    const std::uint64_t bytes = std::max<std::uint64_t>(all * block, kLeastListBytes);
    if (bytes > std::numeric_limits<std::int32_t>::max())
        throw Error(call, Errc::BadSize);
    return static_cast<std::uint32_t>(bytes);
}

void requireSound(const char* call, const SegmentOptions& options)
{
    const bool stack = options.discipline == Discipline::Stack;
    const bool sized = options.place == Place::Float;
    if (!isBlockSize(options.blockBytes, stack))
        throw Error(call, Errc::BadBlockSize, std::to_string(options.blockBytes));
    if (options.ownerBits > 8 || (options.ownerBits != 0 && !std::has_single_bit(options.ownerBits)) ||
        (stack && options.ownerBits != 0))
        throw Error(call, Errc::BadOwner, "no map of " + std::to_string(options.ownerBits) + " bits");
    if ((options.bytes != 0) != sized)
        throw Error(call, Errc::BadSize);
    if (stack && (options.managerOverflows || options.place == Place::Heap))
        throw Error(call, Errc::StackOverflows);
}

std::vector<MM_TMMSegInfoWire> usedEntries(Device& device)
{
    std::vector<MM_TMMSegInfoWire> entries;
    for (std::uint8_t handle = 0; handle < kHandles; ++handle)
        if (const auto entry = device.segment(handle); entry && isUsed(*entry))
            entries.push_back(*entry);
    return entries;
}

// The heap takes every piece of free memory; in one that is smaller than a block the manager writes past its end. Pieces come
// from aligned segments, which leave a gap before them.
void requireNoGaps(const char* call, Device& device)
{
    std::uint32_t end = 0; // the least that everything before may reach to
    for (std::uint8_t row = 0; row < MM_MAX_MCT_NUM; ++row)
        if (const auto fixed = device.tableRow(row))
            end = std::max(end, fixed->pubStartAddr + fixed->ulSize);
    std::vector<MM_TMMSegInfoWire> entries = usedEntries(device);
    const auto firstOf = [](const MM_TMMSegInfoWire& entry) {
        return entry.pubMapStartAddr != 0 ? entry.pubMapStartAddr : entry.pubStartAddr;
    };
    std::sort(entries.begin(), entries.end(), [&](const auto& a, const auto& b) { return firstOf(a) < firstOf(b); });
    for (const MM_TMMSegInfoWire& entry : entries) {
        const MM_TSegInfoFromApp& request = entry.stInfoFromApp;
        const std::uint32_t first = firstOf(entry);
        if (request.ubType == MM_FIXED)
            continue;
        const bool aligned = request.ubType == MM_FLOATALIGN;
        if (aligned && first > end && first - end > kForgottenGap)
            throw Error(call, Errc::HeapUnsafe, "before '" + nameOf(request.aubSegID) + "'");
        const std::uint32_t moved = aligned ? 0 : std::max<std::uint32_t>(request.ulBlkSize, 4) - 1;
        end = std::max(end, first - std::min(first, moved) + request.ulSegSize);
    }
}

} // namespace

std::string nameOf(const MM_U8 (&id)[4])
{
    const auto* const text = reinterpret_cast<const char*>(id);
    return {text, strnlen(text, sizeof id)};
}

std::error_code refusalOf(const MM_TMMSegInfoWire& entry)
{
    const MM_TSegInfoFromApp& request = entry.stInfoFromApp;
    const bool stack = request.ubSegDSType == MM_STACK;
    if (!isBlockSize(request.ulBlkSize, stack))
        return Errc::BadBlockSize;
    if (stack && request.ubSemaphore == MM_YES)
        return Errc::StackIsLocked;
    if (stack && request.ubVM != 0)
        return Errc::StackOverflows;
    return {};
}

std::vector<Owner> ownerIds(unsigned bits)
{
    std::vector<Owner> ids;
    if (bits == 0 || bits > 8 || !std::has_single_bit(bits))
        return ids;
    for (unsigned id = 1; id < 1U << bits; ++id)
        if (std::popcount(id) == static_cast<int>((bits + 1) / 2))
            ids.push_back(static_cast<Owner>(id));
    return ids;
}

void startUp(Device& device, MM_TStartOption option, Restart restart)
{
    detail::Holdings& holdings = SegmentAccess::holdings(device);
    const std::lock_guard guard(holdings.mutex);
    if (restart == Restart::Refuse && !usedEntries(device).empty())
        throw Error("startUp", Errc::AlreadyStarted);
    device.buildTable();
    holdings.blocks.clear();
    device.startLibrary(option);
}

void startUp(Device& device, MM_TStartOption option, Restart restart, std::error_code& error)
{
    orElse(error, false, [&] {
        startUp(device, option, restart);
        return true;
    });
}

// Its own -------------------------------------------------------------------------------------------

MM_TMMSegInfoWire Segment::State::now(const char* call)
{
    const auto current = device.segment(static_cast<std::uint8_t>(handle()));
    const bool same = current && isUsed(*current) && current->pubStartAddr == entry.pubStartAddr &&
                      current->pubEndAddr == entry.pubEndAddr && current->pubMapEndAddr == entry.pubMapEndAddr &&
                      current->stInfoFromApp.ulBlkSize == blockBytes() && current->stInfoFromApp.ubMap == ownerBits() &&
                      nameOf(current->stInfoFromApp.aubSegID) == name();
    if (!same)
        throw Error(call, Errc::NoSuchSegment, "'" + name() + "' is gone");
    return *current;
}

unsigned Segment::State::ownerOf(std::uint32_t block)
{
    const std::uint32_t mapBytes = entry.pubMapEndAddr - entry.pubMapStartAddr;
    if (!ownerMap)
        ownerMap.emplace(device.map(entry.pubMapStartAddr, mapBytes));
    // The last block has the lowest bits of the last byte.
    const std::uint32_t fromEnd = (entry.pubEndAddr - entry.pubStartAddr) / blockBytes() - 1 - block;
    const std::uint32_t perByte = 8 / ownerBits();
    const volatile std::byte& byte = ownerMap->bytes()[mapBytes - 1 - fromEnd / perByte];
    return std::to_integer<unsigned>(std::byte(byte)) >> fromEnd % perByte * ownerBits() & ((1U << ownerBits()) - 1);
}

MM_TMMSegInfoWire Segment::State::requireAllocated(const char* call, const BlockRecord& record)
{
    const MM_TMMSegInfoWire current = now(call);
    const std::uint32_t first = (record.address - entry.pubStartAddr) / blockBytes();
    const std::uint32_t blocks = blocksOf(record.bytes);
    if (record.address < entry.pubStartAddr || (record.address - entry.pubStartAddr) % blockBytes() != 0 ||
        blocks > entry.ulTotalBlkNum || first > entry.ulTotalBlkNum - blocks)
        throw Error(call, Errc::BadRange, "not among the blocks of '" + name() + "'");
    if (isStack() && first < current.ulTotalFreeBlkNum)
        throw Error(call, Errc::NotHeld, "above the top of the stack");
    for (std::uint32_t block = first; ownerBits() != 0 && block < first + blocks; ++block)
        if (const unsigned owner = ownerOf(block); owner != record.owner)
            throw Error(call, Errc::NotHeld, "its owner in '" + name() + "' is " + std::to_string(owner));
    return current;
}

const std::string& Segment::name() const noexcept
{
    return state_->nameText;
}

Handle Segment::handle() const noexcept
{
    return state_->handle();
}

std::uint32_t Segment::blockBytes() const noexcept
{
    return state_->blockBytes();
}

unsigned Segment::ownerBits() const noexcept
{
    return state_->ownerBits();
}

std::optional<std::uint32_t> Segment::bytes() const noexcept
{
    return state_->bytes;
}

Discipline Segment::discipline() const noexcept
{
    return state_->isStack() ? Discipline::Stack : Discipline::Blocks;
}

Device Segment::device() const
{
    return state_->device;
}

// Found, created ------------------------------------------------------------------------------------

std::shared_ptr<Segment::State> Segment::open(Device& device, const MM_TMMSegInfoWire& entry)
{
    auto state = std::make_shared<State>(
        State{device, *device.holdings_, entry, std::nullopt, std::nullopt, nameOf(entry.stInfoFromApp.aubSegID)});
    if (!state->isHeap())
        state->bytes = entry.ulTotalBlkNum * state->blockBytes();
    return state;
}

std::optional<Segment> Segment::find(Device& device, std::string_view name)
{
    char id[4] = {};
    setName(id, "Segment::find", name);
    for (const MM_TMMSegInfoWire& entry : usedEntries(device)) {
        if (std::memcmp(entry.stInfoFromApp.aubSegID, id, sizeof id) != 0)
            continue;
        if (const std::error_code refusal = refusalOf(entry))
            throw Error("Segment::find", static_cast<Errc>(refusal.value()), "'" + std::string(name) + "'");
        return Segment(open(device, entry));
    }
    return std::nullopt;
}

std::optional<Segment> Segment::find(Device& device, std::string_view name, std::error_code& error)
{
    auto found = orElse(error, std::optional<Segment>(), [&] { return find(device, name); });
    if (!found && !error)
        error = Errc::NoSuchSegment;
    return found;
}

Segment Segment::create(Device& device, const SegmentOptions& options)
{
    constexpr const char* call = "Segment::create";
    requireSound(call, options);
    char id[4] = {};
    setName(id, call, options.name);
    if (options.place == Place::Heap)
        requireNoGaps(call, device);
    const bool stack = options.discipline == Discipline::Stack;
    const MM_TSegInfoFromApp made =
        device.createSegment({.name = options.name,
                              .bytes = options.place == Place::Float ? placedBytes(call, options) : 0,
                              .blockBytes = options.blockBytes,
                              .mapBits = options.ownerBits,
                              .type = static_cast<std::uint8_t>(options.place == Place::Fixed ? MM_FIXED : MM_FLOAT),
                              .discipline = static_cast<std::uint8_t>(stack ? MM_STACK : MM_LINKEDLIST),
                              .locked = !stack,
                              .overflowsToHeap = options.managerOverflows});
    if (options.place == Place::Heap) {
        if (made.ulRetSegSize == 0 || made.ulRetSegSize > made.ulSegSize)
            throw Error(call, Errc::HeapUnsafe);
        MM_TMMSegInfoWire entry{};
        entry.stInfoFromApp = made;
        Segment heap(open(device, entry));
        heap.state_->bytes = made.ulRetSegSize;
        return heap;
    }
    const auto entry = device.segment(static_cast<std::uint8_t>(made.hulHandle));
    if (!entry || !isUsed(*entry) || entry->ulTotalBlkNum == 0 ||
        std::uint64_t(entry->ulTotalBlkNum) * options.blockBytes < options.bytes)
        throw Error(call, Errc::SegmentDiffers, "'" + options.name + "' did not get its blocks");
    return Segment(open(device, *entry));
}

std::optional<Segment> Segment::create(Device& device, const SegmentOptions& options, std::error_code& error)
{
    return orElse(error, std::optional<Segment>(), [&] { return std::optional(create(device, options)); });
}

Segment Segment::openOrCreate(Device& device, const SegmentOptions& options)
{
    constexpr const char* call = "Segment::openOrCreate";
    requireSound(call, options);
    if (options.place == Place::Heap)
        throw Error(call, Errc::NotKnown, "no command finds the heap");
    std::optional<Segment> found = find(device, options.name);
    if (!found) {
        std::error_code refusal;
        found = create(device, options, refusal);
        if (found)
            return *found;
        // Somebody else may have been faster.
        if (refusal != std::error_code(MM_EASSERT, managerCategory()) || !(found = find(device, options.name)))
            throw Error(call, resultOf(refusal));
    }
    const State& state = *found->state_;
    const bool fixed = state.entry.stInfoFromApp.ubType == MM_FIXED;
    if (state.blockBytes() != options.blockBytes || state.ownerBits() != options.ownerBits ||
        found->discipline() != options.discipline || fixed != (options.place == Place::Fixed) ||
        *state.bytes < options.bytes || (state.entry.stInfoFromApp.ubVM != 0) != options.managerOverflows)
        throw Error(call, Errc::SegmentDiffers, "'" + options.name + "'");
    return *found;
}

std::optional<Segment> Segment::openOrCreate(Device& device, const SegmentOptions& options, std::error_code& error)
{
    return orElse(error, std::optional<Segment>(), [&] { return std::optional(openOrCreate(device, options)); });
}

Segment Segment::heap(Device& device, const HeapFacts& facts)
{
    requireSound("Segment::heap",
                 {.name = "HEAP", .blockBytes = facts.blockBytes, .ownerBits = facts.ownerBits, .place = Place::Heap});
    MM_TMMSegInfoWire entry{};
    entry.stInfoFromApp.ubSegDSType = MM_LINKEDLIST;
    entry.stInfoFromApp.ubMap = facts.ownerBits;
    entry.stInfoFromApp.ulBlkSize = facts.blockBytes;
    entry.stInfoFromApp.hulHandle = MM_HEAPHANDLE;
    return Segment(open(device, entry));
}

// Allocation, clean-up ------------------------------------------------------------------------------

void Segment::overflowInto(const Segment& heap, Owner owner)
{
    if (!heap.isHeap())
        throw Error("Segment::overflowInto", Errc::SegmentDiffers, "'" + heap.name() + "' is not the heap");
    requireOwner("Segment::overflowInto", owner, heap.ownerBits(), false);
    overflow_ = heap.state_;
    overflowOwner_ = owner;
}

// Without the overflow of this library. Under the holdings' mutex.
std::optional<Block> Segment::takeHere(std::uint32_t bytes, Owner owner) const
{
    State& state = *state_;
    const auto handle = static_cast<std::uint32_t>(state.handle());
    if (bytes > std::numeric_limits<std::uint32_t>::max() - state.blockBytes())
        return std::nullopt;
    const BlockRecord unnamed{handle, 0, bytes, static_cast<std::uint32_t>(owner), {}};
    const auto made = [&](MM_TAddr address) {
        BlockRecord record = unnamed;
        record.address = address;
        std::memcpy(record.name, state.entry.stInfoFromApp.aubSegID, sizeof record.name);
        return Block(state_, record, state.holdings.add(address, state.handle(), owner));
    };
    if (state.isHeap()) { // counted in its blocks by the manager
        const auto address = state.device.allocate(handle, bytes, static_cast<std::uint8_t>(owner));
        return address ? std::optional(made(*address)) : std::nullopt;
    }
    const std::uint32_t blocks = state.blocksOf(bytes);
    const std::uint32_t whole = blocks * state.blockBytes();
    const bool managerOverflows = state.entry.stInfoFromApp.ubVM != 0;
    if (whole > *state.bytes || (managerOverflows && state.now("Segment::allocate").ulLargestBlkSize < blocks))
        return std::nullopt;
    const auto address = state.device.allocate(handle, whole, static_cast<std::uint8_t>(owner));
    if (!address)
        return std::nullopt;
    if (*address >= state.entry.pubStartAddr && *address <= state.entry.pubEndAddr - whole)
        return made(*address);
    // As many of the heap's blocks, of which only their number is known: they go back as they came.
    state.device.release(handle, *address, whole);
    if (!managerOverflows)
        throw Error("Segment::allocate", Errc::NoSuchSegment, "'" + state.name() + "' is gone");
    return std::nullopt;
}

std::optional<Block> Segment::take(std::uint32_t bytes, Owner owner) const
{
    if (bytes == 0)
        throw Error("Segment::allocate", Errc::BadSize);
    requireOwner("Segment::allocate", owner, ownerBits(), false);
    const std::lock_guard guard(state_->holdings.mutex);
    std::optional<Block> block = takeHere(bytes, owner);
    if (!block && overflow_)
        block = Segment(overflow_).takeHere(bytes, overflowOwner_);
    return block;
}

std::optional<Block> Segment::allocate(std::uint32_t bytes, Owner owner) const
{
    return take(bytes, owner);
}

std::optional<Block> Segment::allocate(std::uint32_t bytes, Owner owner, std::error_code& error) const
{
    auto block = orElse(error, std::optional<Block>(), [&] { return take(bytes, owner); });
    if (!block && !error)
        error = Errc::NoRoom;
    return block;
}

Block Segment::adopt(const BlockRecord& record) const
{
    constexpr const char* call = "Segment::adopt";
    State& state = *state_;
    const auto owner = static_cast<Owner>(record.owner);
    if (record.bytes == 0 || record.owner > 0xFF)
        throw Error(call, Errc::BadSize);
    requireOwner(call, owner, ownerBits(), false);
    if (record.segment != static_cast<std::uint32_t>(handle()) ||
        (!isHeap() && std::memcmp(record.name, state.entry.stInfoFromApp.aubSegID, sizeof record.name) != 0))
        throw Error(call, Errc::SegmentDiffers, "the block is not of '" + name() + "'");
    const std::lock_guard guard(state.holdings.mutex);
    if (state.holdings.blocks.contains(record.address))
        throw Error(call, Errc::NotHeld, "another Block of this process holds it");
    if (!isHeap())
        state.requireAllocated(call, record);
    return Block(state_, record, state.holdings.add(record.address, handle(), owner));
}

std::optional<Block> Segment::adopt(const BlockRecord& record, std::error_code& error) const
{
    return orElse(error, std::optional<Block>(), [&] { return std::optional(adopt(record)); });
}

void Segment::collect(Owner owner) const
{
    constexpr const char* call = "Segment::collect";
    requireOwner(call, owner, ownerBits(), true);
    const auto id = static_cast<unsigned>(owner);
    if (isHeap() && ownerBits() == 8 && (id & kPermanent) == id)
        throw Error(call, Errc::BadOwner,
                    "blocks that were made permanent have 254, which contains " + std::to_string(id));
    State& state = *state_;
    const std::lock_guard guard(state.holdings.mutex);
    if (!isHeap())
        state.now(call);
    state.device.collectGarbage(static_cast<std::uint32_t>(handle()), static_cast<std::uint8_t>(owner));
    state.holdings.forget(handle(), owner);
}

void Segment::collect(Owner owner, std::error_code& error) const
{
    orElse(error, false, [&] {
        collect(owner);
        return true;
    });
}

} // namespace velmora
