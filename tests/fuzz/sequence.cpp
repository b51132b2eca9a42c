#include "sequence.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "controller/device.h"
#include "../../kernel/mm/mm/MM_RunIndex.h"
#include "../../kernel/mm/mmi/MM_Interface.h"

namespace velmora::fuzz {

using sim::Machine;
using sim::machine;
using sim::Outcome;

namespace {

constexpr char kArea[] = "95000000-9e000000";
// Accesses of one operation, far above what the longest list here takes; a collection is many releases.
constexpr unsigned long kTouchLimit = 2'000'000;
constexpr unsigned long kCollectTouchLimit = 50'000'000;
constexpr U32 kMostBlocks = 200'000; // of a segment
constexpr U32 kMaxSegmentBytes = 24 << 20;
constexpr U32 kMaxNodes = 400'000; // a list that is longer is taken for endless
constexpr unsigned kFloatSegments = 4;
constexpr const char* kFixedNames[] = {"$UEV", "$JCB", "$FIL"};

// Numbers that follow from a seed the same way everywhere.
class Numbers
{
public:
    explicit Numbers(U32 seed) : state_(seed * 2 + 1) {}
    U32 below(U32 limit)
    {
        state_ = state_ * 1664525U + 1013904223U;
        return static_cast<U32>((static_cast<std::uint64_t>(state_) * limit) >> 32);
    }

private:
    U32 state_;
};

TMMBlkStr* node(U32 address)
{
    return reinterpret_cast<TMMBlkStr*>(address);
}

bool isNode(const TMMBlkStr* run)
{
    return run != nullptr && Machine::exists(MM_Addr(run), offsetof(TMMBlkStr, aubdata));
}

void setName(U8 (&id)[4], const char* name)
{
    std::memcpy(id, name, std::min<std::size_t>(std::strlen(name), sizeof id));
}

// An aligned segment may leave a gap in front that is smaller than the header which the manager keeps there: the header
// and the segment's map are then written over one another.
bool leavesTinyGap(U32 blockBytes)
{
    for (const TMMBlkStr* free = pstSegBlkHead; isNode(free); free = free->pstNext)
        if (const U32 gap = (0 - MM_Addr(free)) % blockBytes; gap != 0 && gap < offsetof(TMMBlkStr, aubdata))
            return true;
    return false;
}

// Bytes of the shortest stretch that is long enough for the heap. The heap's blocks should be much shorter: otherwise
// their alignment puts them into the next segment.
U32 smallestStretch()
{
    U32 smallest = ~0U;
    for (const TMMBlkStr* free = pstSegBlkHead; isNode(free); free = free->pstNext)
        if (free->ulSize > 128)
            smallest = std::min<U32>(smallest, free->ulSize);
    return smallest;
}

bool anyLockHeld()
{
    return machine().lockHeld(search_lock) || machine().lockHeld(free_lock) || machine().lockHeld(push_lock) ||
           machine().lockHeld(pop_lock);
}

} // namespace

std::string Operation::text() const
{
    std::string line = name;
    const char* separator = "(";
    for (const U32 argument : arguments) {
        char text[16];
        std::snprintf(text, sizeof text, argument < 100'000 ? "%s%u" : "%s0x%x", separator,
                      static_cast<unsigned>(argument));
        line += text;
        separator = ", ";
    }
    return line + (arguments.empty() ? "()" : ")");
}

// Byte 0: bit 0 misuse, bits 1 to 3 how much of it, bits 4 to 7 long when all are set, byte 5 how long. Byte 1: how large segments are.
// Byte 2: how many segments. Byte 3: the heap. Byte 4: how often the whole state is looked at.
Sequence::Sequence(const std::uint8_t* data, std::size_t size) : data_(data), size_(size)
{
    constexpr U32 rates[] = {16, 32, 64, 128, 128, 256, 256, 512};
    constexpr U32 limits[] = {200, 1000, 1000, 1000, 4000, 4000, 20'000, kMostBlocks};
    ordinary_ = (byteAt(0) & 1) == 0;
    misuseRate_ = rates[byteAt(0) >> 1 & 7];
    effort_ = byteAt(0) >> 4 != 15 ? 1 : byteAt(5) >= 16 ? kLong : kLongest;
    sizeLimit_ = limits[byteAt(1) & 7];
    stateInterval_ = 256U << (byteAt(4) & 3) * 2;
}

U32 Sequence::wordAt(std::size_t place) const
{
    return byteAt(place) | U32(byteAt(place + 1)) << 8 | U32(byteAt(place + 2)) << 16 | U32(byteAt(place + 3)) << 24;
}

Sequence::Record Sequence::recordAt(std::size_t place) const
{
    return {byteAt(place), byteAt(place + 1), byteAt(place + 2), byteAt(place + 3), wordAt(place + 4)};
}

void Sequence::play(bool useIndex, Observer& observer)
{
    observer_ = &observer;
    segments_.clear();
    lastReleased_ = {};
    operations_ = overlays_ = mended_ = 0;
    sim::powerOn();
    machine().faults.touchLimit = kTouchLimit;
    MM_UseRunIndex(useIndex);
    try {
        std::memcpy(bigphysarea_info, kArea, sizeof kArea);
        perform("printer_mm_init", 0, {}, [] { return printer_mm_init(); });
        perform("MM_Entry", 0, {MM_CONSTRUCT_DEFAULT_MCT}, [] { return MM_Entry(MM_CONSTRUCT_DEFAULT_MCT); });
        bringUp();
        if (!ordinary_)
            combAll(recordAt(72));
        for (std::size_t place = kHeadBytes; place < size_; place += kRecordBytes)
            step(recordAt(place));
        tellState();
    } catch (const SequenceEnds&) {
    }
    MM_UseRunIndex(TRUE);
}

template <class Call> U32 Sequence::perform(const char* name, U32 handle, std::vector<U32> arguments, const Call& call)
{
    const Outcome outcome = machine().run([&call] { return static_cast<U32>(call()); });
    machine().faults.touchLimit = kTouchLimit;
    observer_->operation({name, std::move(arguments)}, handle, outcome, machine().takeLog());
    if (outcome.kind == Outcome::Kind::Endless)
        throw SequenceEnds{}; // in the midst of something
    if (outcome.kind == Outcome::Kind::Oops) {
        tellState();
        throw SequenceEnds{};
    }
    // A controller stands still where a lock stays held. Here somebody releases it now and then, so that it goes on.
    if (anyLockHeld() && operations_ % 2 == 0)
        for (const TMMLock lock : {search_lock, free_lock, push_lock, pop_lock})
            machine().unlock(lock);
    if (++operations_ % stateInterval_ == 0)
        tellState();
    return outcome.value;
}

void Sequence::tellState()
{
    observer_->state(indexesKept());
}

// Where a segment's blocks hold no header, its list breaks, and where they are no multiple of four bytes, a stack grows
// past its end: such segments write over others, also without misuse.
bool Sequence::indexesKept() const
{
    const auto soundSegment = [](const Segment& segment) { return holdsHeaders(segment.handle); };
    if (!ordinary_ || !std::all_of(segments_.begin(), segments_.end(), soundSegment))
        return true;
    return std::all_of(segments_.begin(), segments_.end(),
                       [](const Segment& segment) { return !segment.indexed || MM_HasRunIndex(segment.handle); });
}

// Set-up -------------------------------------------------------------------------------------------------------------

void Sequence::bringUp()
{
    perform("MM_LibEntry", 0, {SM_BKUP_OK}, [] { return MM_LibEntry(SM_BKUP_OK, nullptr); });
    segments_.clear();

    const unsigned fixed = byteAt(2) & 3;
    const unsigned floats = 1 + (byteAt(2) >> 2) % kFloatSegments;
    std::size_t place = 8;
    for (unsigned i = 0; i < fixed; ++i, place += 8) {
        Shape shape = shapeAt(place);
        shape.type = FIXED;
        create(kFixedNames[i], shape);
    }
    place = 32;
    for (unsigned i = 0; i < floats; ++i, place += 8) {
        const char name[] = {'B', 'L', 'K', static_cast<char>('0' + i), 0};
        create(name, shapeAt(place));
    }
    if ((byteAt(3) & 7) != 0)
        createHeap(64);
    if (segments_.empty())
        throw SequenceEnds{};
}

// Byte 0: block size. 1: owner map. 2: bit 0 lock, bit 1 overflow, bits 2 and 3 aligned, bits 4 to 7 stack when all are
// set. 3: bytes beyond whole blocks. 4 to 7: blocks.
Sequence::Shape Sequence::shapeAt(std::size_t place) const
{
    constexpr U32 sizes[] = {16, 64, 4096, 32, 128, 1024, 256, 16, 64, 100, 24, 48, 17, 512, 2048, 31, 20, 1000};
    constexpr U32 tinySizes[] = {8, 4, 15, 12, 1}; // blocks that hold no header: seldom, their lists soon break
    constexpr U8 widths[] = {0, 8, 1, 2, 4};
    Shape shape{};
    const U8 size = byteAt(place);
    shape.blockBytes =
        size < (ordinary_ ? 250 : 236) ? sizes[size % std::size(sizes)] : tinySizes[size % std::size(tinySizes)];
    shape.mapBits = widths[byteAt(place + 1) % std::size(widths)];
    const U8 flags = byteAt(place + 2);
    shape.semaphore = flags & 1;
    shape.overflow = flags >> 1 & 1;
    const bool powerOfTwo = (shape.blockBytes & (shape.blockBytes - 1)) == 0;
    shape.type = (flags >> 2 & 3) == 3 && powerOfTwo ? FLOATALIGN : FLOAT;
    shape.discipline = flags >> 4 == 15 ? STACK : LINKEDLIST;
    if (shape.discipline == STACK)
        shape.mapBits = 0;
    const U32 blocks = 8 + wordAt(place + 4) % sizeLimit_;
    shape.bytes = std::max<U32>(std::min(blocks * shape.blockBytes + byteAt(place + 3), kMaxSegmentBytes), 128);
    return shape;
}

void Sequence::create(const char* name, const Shape& shape)
{
    TSegInfoFromApp info{};
    setName(info.aubSegID, name);
    info.ubType = shape.type == FLOATALIGN && ordinary_ && leavesTinyGap(shape.blockBytes) ? U8(FLOAT) : shape.type;
    info.ubSegDSType = shape.discipline;
    info.ubMap = shape.mapBits;
    info.ubSemaphore = shape.semaphore;
    info.ubVM = shape.overflow;
    info.ulSegSize = shape.bytes;
    info.ulBlkSize = shape.blockBytes;
    const U32 result = perform(
        "MM_CreateSegment", 0,
        {info.ubType, shape.discipline, shape.mapBits, shape.semaphore, shape.bytes, shape.blockBytes, shape.overflow},
        [&info] { return MM_CreateSegment(&info); });
    if (result != ENOERR || !MM_CheckSegInitCompleted(info.hulHandle))
        return;
    const TMMSegInfo& seg = stSegTable[info.hulHandle];
    const U32 start = MM_Addr(seg.pubMapStartAddr != nullptr ? seg.pubMapStartAddr : seg.pubStartAddr);
    segments_.push_back({info.hulHandle,
                         shape.discipline == STACK,
                         MM_HasRunIndex(info.hulHandle) != FALSE,
                         start,
                         MM_Addr(seg.pubEndAddr) - start,
                         0,
                         {}});
}

// Byte 3 of the head: pieces. The free memory that is left becomes so many stretches.
void Sequence::createHeap(std::size_t place)
{
    Shape shape = shapeAt(place);
    const unsigned pieces = 1 + (byteAt(3) >> 3) % MAX_PIECE_NUM;
    perform("pieces of free memory", 0, {pieces, shape.bytes / pieces}, [=, this] {
        cutFreeMemory(pieces, shape.bytes / pieces);
        return 0;
    });
    shape.bytes = 0;
    shape.type = FLOAT;
    if (ordinary_ && smallestStretch() < 4 * shape.blockBytes)
        shape.blockBytes = 16;
    create("HEAP", shape);
}

void Sequence::cutFreeMemory(unsigned pieces, U32 bytes)
{
    if (pstSegBlkHead == nullptr || pstSegBlkHead != pstSegBlkTail)
        return;
    const U32 start = MM_Addr(pstSegBlkHead);
    const U32 room = pstSegBlkHead->ulSize / pieces;
    if (room < 4096)
        return;
    bytes = std::clamp<U32>(bytes & ~3U, 256, room - 2048);
    for (unsigned i = 0; i < pieces; ++i) {
        TMMBlkStr* const piece = node(start + i * (bytes + 1024));
        TMMBlkStr* const next = i + 1 < pieces ? node(MM_Addr(piece) + bytes + 1024) : nullptr;
        TMMBlkStr* const back = i > 0 ? node(MM_Addr(piece) - bytes - 1024) : nullptr;
        piece->pstNext = next;
        piece->pstBack = back;
        piece->ulSize = bytes;
        pstSegBlkTail = piece;
    }
}

// What there is ------------------------------------------------------------------------------------------------------

Sequence::Segment* Sequence::segmentOf(U32 handle)
{
    const auto found = std::find_if(segments_.begin(), segments_.end(),
                                    [=](const Segment& segment) { return segment.handle == handle; });
    return found == segments_.end() ? nullptr : &*found;
}

Sequence::Run Sequence::freeRun(U32 handle, U32 nodes, bool fromTail)
{
    const TMMBlkStr* run = fromTail ? astBlkTail[handle].pstBlk : astBlkHead[handle].pstBlk;
    if (!isNode(run))
        return {0, 0};
    for (; nodes > 0; --nodes) {
        const TMMBlkStr* const further = fromTail ? run->pstBack : run->pstNext;
        if (!isNode(further))
            break;
        run = further;
    }
    return {MM_Addr(run), run->ulSize};
}

// An owner that the segment's map takes, mostly one of a few.
U8 Sequence::ownerFor(const Segment& segment, U8 byte) const
{
    const U8 bits = stSegTable[segment.handle].stInfoFromApp.ubMap;
    if (bits <= 1)
        return bits == 0 ? 0 : byte & 1;
    const U32 owners = (1U << bits) - 1;
    return static_cast<U8>(1 + byte % (byte < 240 ? std::min<U32>(owners, 5) : owners));
}

U32 Sequence::blocksFor(const Segment& segment, U8 how, U32 number) const
{
    const TMMSegInfo& seg = stSegTable[segment.handle];
    switch (how % 32) {
    case 0: return seg.ulLargestBlkSize;
    case 1: return seg.ulLargestBlkSize + 1;
    case 2: return 1 + number % (seg.ulTotalBlkNum / 4 + 1);
    case 3: {
        const U32 special[] = {0, 0x7FFFFFFF, seg.ulTotalBlkNum, seg.ulTotalBlkNum + 1, seg.ulTotalFreeBlkNum};
        return special[number % std::size(special)];
    }
    case 4:
    case 5:
    case 6:
    case 7: return 1 + number % 64;
    case 8:
    case 9:
    case 10:
    case 11:
    case 12: return 1;
    default: return 1 + number % 8;
    }
}

void Sequence::forgetReleased(Segment& segment)
{
    std::vector<Run> runs;
    const U32 unit = unitBytes(segment.handle);
    for (const TMMBlkStr* run = astBlkHead[segment.handle].pstBlk; isNode(run) && runs.size() < kMaxNodes;
         run = run->pstNext)
        runs.push_back({MM_Addr(run), run->ulSize});
    std::erase_if(segment.grants, [&](const Grant& grant) {
        const auto above = std::lower_bound(runs.begin(), runs.end(), grant.address + grant.blocks * unit,
                                            [](const Run& run, U32 address) { return run.address < address; });
        return above != runs.begin() && (above - 1)->address + (above - 1)->blocks * unit > grant.address;
    });
}

// Steps --------------------------------------------------------------------------------------------------------------

void Sequence::step(const Record& record)
{
    Segment& segment = segments_[record.segment % segments_.size()];
    // All bytes together say whether a step goes wrong, so that none of them is bound by it.
    const U32 mixed = (record.number ^ record.owner << 20 ^ record.how << 9 ^ record.kind) * 0x9E3779B1U;
    if (!ordinary_ && mixed >> 21 < misuseRate_) {
        misuse(segment, record);
        return observer_->misused();
    }
    if (segment.spoiledFor != 0 && ++segment.spoiledFor > 8U + record.how % 32)
        return mend(segment, record);

    const U8 kind = record.kind;
    if (kind < 96)
        allocate(segment, record);
    else if (kind < 192)
        release(segment, record);
    else if (kind < 206)
        claim(segment, record);
    else if (kind < 212)
        collect(segment, record);
    else if (kind < 218)
        permanent(record);
    else if (kind < 228)
        write(segment, record);
    else if (kind < 238)
        query(segment, record);
    else if (kind < 241)
        comb(segment, record);
    else if (kind < 253)
        churn(segment, record);
    else if (kind < 255)
        startAnew(segment, record);
    else
        restart(record);
}

void Sequence::allocate(Segment& segment, const Record& record)
{
    const U32 handle = segment.handle == HEAPHANDLE && (record.how & 64) != 0 ? U32(HEAPHANDLE_ALIAS) : segment.handle;
    const U8 owner = ownerFor(segment, record.owner);
    U32 blocks = blocksFor(segment, record.how, record.number);
    U32 address;
    if ((record.how & 128) != 0) {
        const U32 blockBytes = stSegTable[segment.handle].stInfoFromApp.ulBlkSize;
        const U32 bytes = blocks * blockBytes - record.number % blockBytes;
        blocks = (blockBytes - 1 + bytes) / blockBytes;
        address = perform("MM_Malloc", segment.handle, {handle, bytes, owner},
                          [=] { return MM_Malloc(handle, bytes, owner); });
    } else {
        address = perform("MM_AllocBlock", segment.handle, {handle, blocks, owner},
                          [=] { return MM_AllocBlock(handle, blocks, owner); });
    }
    give(segment, address, blocks, owner);
}

// Notes what a client was given; what overflowed belongs to the heap.
void Sequence::give(Segment& segment, U32 address, U32 blocks, U8 owner)
{
    if (address == 0 || address == MM_FAILED || blocks == 0)
        return;
    Segment* holder = &segment;
    if (segment.handle != HEAPHANDLE && MM_CheckHeapArea(MM_At(address)))
        holder = segmentOf(HEAPHANDLE);
    if (holder != nullptr)
        holder->grants.push_back({address, blocks, holder == &segment ? owner : U8(0)});
}

// How: bits 0 and 1 all or which part, bit 2 by bytes, bit 3 under another handle, bit 4 the youngest grant.
void Sequence::release(Segment& segment, const Record& record)
{
    if (segment.grants.empty())
        return;
    const std::size_t last = segment.grants.size() - 1;
    const std::size_t index = segment.stack || (record.how & 16) != 0 ? last : record.number % (last + 1);
    const Grant grant = segment.grants[index];
    U32 first = 0;
    U32 blocks = grant.blocks;
    if (!segment.stack && (record.how & 3) == 3) {
        first = record.number / 256 % grant.blocks;
        blocks = 1 + record.number / 1024 % (grant.blocks - first);
    } else if (!segment.stack && (record.how & 3) == 2) {
        blocks = 1 + record.number / 256 % grant.blocks;
    }
    releaseGrant(segment, index, first, blocks, record.how);
}

void Sequence::releaseGrant(Segment& segment, std::size_t index, U32 first, U32 blocks, unsigned how)
{
    const Grant grant = segment.grants[index];
    const U32 unit = unitBytes(segment.handle);
    const U32 address = grant.address + first * unit;
    U32 handle = segment.handle;
    if (handle == HEAPHANDLE && (how & 8) != 0) // heap memory may be released under any block segment's handle
        handle = segments_[0].stack ? U32(HEAPHANDLE_ALIAS) : segments_[0].handle;

    if ((how & 4) != 0) {
        const U32 blockBytes = stSegTable[MM_RealHandle(handle)].stInfoFromApp.ulBlkSize;
        const U32 bytes = (blocks - 1) * blockBytes + 1 + (how * 37 + blocks) % blockBytes;
        perform("MM_Free", segment.handle, {handle, address, bytes},
                [=] { return MM_Free(handle, MM_At(address), bytes); });
    } else {
        perform("MM_FreeBlock", segment.handle, {handle, address, blocks},
                [=] { return MM_FreeBlock(handle, MM_At(address), blocks); });
    }

    lastReleased_ = {address, blocks, grant.owner};
    segment.grants[index] = segment.grants.back();
    segment.grants.pop_back();
    if (first > 0)
        segment.grants.push_back({grant.address, first, grant.owner});
    if (first + blocks < grant.blocks)
        segment.grants.push_back({address + blocks * unit, grant.blocks - first - blocks, grant.owner});
}

// A claim that leaves a whole list behind: the end of a free run, or a whole one.
void Sequence::claim(Segment& segment, const Record& record)
{
    const U32 handle = segment.handle;
    const Run run =
        segment.stack || handle == HEAPHANDLE ? Run{0, 0} : freeRun(handle, record.number % 32, record.how % 2 == 0);
    if (run.blocks == 0)
        return;
    const bool whole = record.how % 4 == 0;
    const U32 blocks = whole ? run.blocks : 1 + record.number / 32 % run.blocks;
    const U32 address = run.address + (run.blocks - blocks) * unitBytes(handle);
    if (!whole && blocks == run.blocks)
        return;
    const U32 result = perform("MM_ReallocBlock", handle, {handle, address, blocks},
                               [=] { return MM_ReallocBlock(handle, MM_At(address), blocks); });
    // The start of the segment, and what passes its end, is refused.
    if (result == ENOERR)
        segment.grants.push_back({address, blocks, 0});
}

// Clean-up counts blocks from the segment's end: a part of a block there would shift what it releases.
bool Sequence::canBeCleaned(U32 handle)
{
    const TMMSegInfo& seg = stSegTable[handle];
    U32 bytes = MM_Addr(seg.pubEndAddr) - MM_Addr(seg.pubStartAddr);
    if (handle == HEAPHANDLE) {
        bytes = 0;
        for (unsigned i = 0; i < MAX_PIECE_NUM && stSegStartAddr.aulHeapAddr[i] != MM_UNUSED_PIECE; ++i)
            bytes |= stSegEndAddr.aulHeapAddr[i] - stSegStartAddr.aulHeapAddr[i];
    }
    return bytes % unitBytes(handle) == 0;
}

void Sequence::collect(Segment& segment, const Record& record)
{
    const U32 handle = segment.handle;
    if (stSegTable[handle].stInfoFromApp.ubMap == 0 || (ordinary_ && !canBeCleaned(handle)))
        return;
    const U8 owner = record.how < 16 ? record.owner : ownerFor(segment, record.owner);
    machine().faults.touchLimit = kCollectTouchLimit;
    perform("MM_CollectGarbage", handle, {handle, owner}, [=] { return MM_CollectGarbage(handle, owner); });
    forgetReleased(segment);
}

void Sequence::permanent(const Record& record)
{
    Segment* const heap = segmentOf(HEAPHANDLE);
    if (heap == nullptr || heap->stack || stSegTable[HEAPHANDLE].stInfoFromApp.ubMap != 8)
        return;
    if (record.how % 16 == 0) {
        if (ordinary_ && !canBeCleaned(HEAPHANDLE))
            return;
        machine().faults.touchLimit = kCollectTouchLimit;
        perform("MM_RlsAllPermanentBlk", HEAPHANDLE, {}, [] { return MM_RlsAllPermanentBlk(), 0; });
        forgetReleased(*heap);
        return;
    }
    if (heap->grants.empty())
        return;
    const std::size_t index = record.number % heap->grants.size();
    Grant& grant = heap->grants[index];
    const U32 address = grant.address;
    const U32 blocks = grant.blocks;
    if (record.how % 4 == 1) {
        perform("MM_CheckPermanentBlk", HEAPHANDLE, {address, blocks},
                [=] { return MM_CheckPermanentBlk(address, blocks); });
    } else if (grant.owner == 254) {
        perform("MM_ReleasePermanentBlk", HEAPHANDLE, {address, blocks},
                [=] { return MM_ReleasePermanentBlk(address, blocks), 0; });
        heap->grants.erase(heap->grants.begin() + static_cast<std::ptrdiff_t>(index));
    } else {
        grant.owner = 254;
        perform("MM_SetPermanentBlk", HEAPHANDLE, {address, blocks},
                [=] { return MM_SetPermanentBlk(address, blocks), 0; });
    }
}

// A client writes all over its memory: also what looks like the header of a free run.
void Sequence::write(Segment& segment, const Record& record)
{
    if (segment.grants.empty() || !holdsHeaders(segment.handle))
        return;
    const Grant grant = segment.grants[record.number % segment.grants.size()];
    const U32 bytes = std::min<U32>(grant.blocks * unitBytes(segment.handle), 4096);
    if (!Machine::exists(grant.address, bytes))
        return;
    if (record.how % 4 == 0) {
        const TMemsetInfo info{grant.address, record.owner, bytes};
        perform("MM_CMD_MEMSET", segment.handle, {grant.address, record.owner, bytes}, [=] {
            std::memcpy(MM_At(sim::kScratch), &info, sizeof info);
            return Velmora_MM_ioctl(MM_CMD_MEMSET, sim::kScratch);
        });
        return;
    }
    const U32 word = record.how % 4 == 1 ? grant.address : record.number * 0x9E3779B1U;
    const bool announced = !ordinary_; // somebody else may hold a header there by mistake
    perform("write", segment.handle, {grant.address, word, bytes}, [=] {
        if (announced)
            MM_MemoryWritten(grant.address, bytes);
        for (U32 i = 0; i + 4 <= bytes; i += 4)
            std::memcpy(MM_At(grant.address + i), &word, 4);
        return 0;
    });
}

void Sequence::query(Segment& segment, const Record& record)
{
    U32 handle = segment.handle == HEAPHANDLE && record.number % 2 == 0 ? U32(HEAPHANDLE_ALIAS) : segment.handle;
    if (record.owner > 250)
        handle = record.number % 100;
    switch (record.how % 10) {
    case 0: perform("MM_GetTotBlk", handle, {handle}, [=] { return MM_GetTotBlk(handle); }); break;
    case 1: perform("MM_GetTotAvailBlk", handle, {handle}, [=] { return MM_GetTotAvailBlk(handle); }); break;
    case 2: perform("MM_GetLargestBlk", handle, {handle}, [=] { return MM_GetLargestBlk(handle); }); break;
    case 3:
        if (handle < MAX_SEGTABLE_SIZE || handle == HEAPHANDLE_ALIAS)
            perform("MM_FindNewLargestBlk", handle, {handle}, [=] { return MM_FindNewLargestBlk(handle); });
        break;
    case 4: {
        U32 sums[2];
        perform("MM_GetTotalMemoryStatus", handle, {}, [&] {
            MM_GetTotalMemoryStatus(&sums[0], &sums[1]);
            return sums[0] * 31 + sums[1];
        });
        break;
    }
    case 5: perform("MM_DisplayMST", handle, {MM_DISPLAY_ALL}, [] { return MM_DisplayMST(MM_DISPLAY_ALL), 0; }); break;
    case 6: perform("MM_TraceMST", handle, {HEAPHANDLE}, [] { return MM_TraceMST(HEAPHANDLE), 0; }); break;
    case 7: {
        U32 sums[2];
        perform("MM_GetCollationCopyMemoryStatus", handle, {}, [&] {
            MM_GetCollationCopyMemoryStatus(&sums[0], &sums[1]);
            return sums[0] * 31 + sums[1];
        });
        break;
    }
    case 8: perform("MM_GetPermanentStartBlk", handle, {}, [] { return MM_GetPermanentStartBlk(); }); break;
    default:
        perform("MM_ReadMST", handle, {handle}, [=] {
            const TMSTInfo* const info = MM_ReadMST(handle);
            return MM_Addr(info) == MM_FAILED ? MM_FAILED : MM_Addr(info->pubEndSegAddr);
        });
        break;
    }
}

// Takes what is free, run by run.
void Sequence::takeAll(Segment& segment, const Record& record)
{
    const U32 handle = segment.handle;
    const U8 owner = ownerFor(segment, record.owner);
    for (unsigned i = 0; i < 20 && stSegTable[handle].ulTotalFreeBlkNum != 0; ++i) {
        const U32 blocks = stSegTable[handle].ulLargestBlkSize;
        if (blocks == 0 || blocks > stSegTable[handle].ulTotalBlkNum)
            break;
        const U32 address = perform("MM_AllocBlock", handle, {handle, blocks, owner},
                                    [=] { return MM_AllocBlock(handle, blocks, owner); });
        give(segment, address, blocks, owner);
    }
}

// Takes all that is free, then releases one piece of so many in what it got: hundreds to tens of thousands of free runs.
// Number: bits 0 to 2 blocks that stay between two pieces less one, bits 3 to 5 most blocks of a piece less one (mostly 0),
// bit 6 from which end, bit 7 a piece is first, the bits from 8 on how many pieces at the most.
void Sequence::comb(Segment& segment, const Record& record)
{
    if (segment.stack || (ordinary_ && !holdsHeaders(segment.handle)))
        return;
    takeAll(segment, record);
    if (segment.grants.empty())
        return;
    const U32 handle = segment.handle;
    const auto largest = std::max_element(segment.grants.begin(), segment.grants.end(),
                                          [](const Grant& a, const Grant& b) { return a.blocks < b.blocks; });
    const Grant field = *largest;
    segment.grants.erase(largest);
    const U32 unit = unitBytes(handle);
    const U32 between = 1 + (record.number & 7);
    const U32 piece = (record.how & 1) != 0 ? 1 + (record.number >> 3 & 7) : 1;
    constexpr U32 mostTeeth[] = {100, 300, 1000, 3000};
    const U32 most = effort_ > kLong    ? 30'000
                     : effort_ == kLong ? 10'000
                     : ordinary_        ? mostTeeth[record.how >> 1 & 3]
                                        : 200; // the list is short, so that much can happen to it
    const U32 least = ordinary_ ? 1 : 2 * WAKE_RUNS;
    const U32 teeth = std::min(field.blocks / (between + piece), least + (record.number >> 8) % most);
    const bool upwards = (record.number >> 6 & 1) != 0;
    // What stays is noted first: the sequence may end at any operation.
    const U32 used = teeth * (between + piece);
    const bool pieceFirst = (record.number >> 7 & 1) != 0;
    for (U32 i = 0; i < teeth; ++i)
        segment.grants.push_back(
            {field.address + (i * (between + piece) + (pieceFirst ? piece : 0)) * unit, between, field.owner});
    if (used < field.blocks)
        segment.grants.push_back({field.address + used * unit, field.blocks - used, field.owner});
    for (U32 i = 0; i < teeth; ++i) {
        const U32 tooth = upwards ? i : teeth - 1 - i;
        const U32 address = field.address + (tooth * (between + piece) + (pieceFirst ? 0 : between)) * unit;
        const U32 blocks = 1 + tooth * 5 % piece; // what is left of the place is lost
        perform("MM_FreeBlock", handle, {handle, address, blocks},
                [=] { return MM_FreeBlock(handle, MM_At(address), blocks); });
    }
}

void Sequence::combAll(const Record& record)
{
    for (Segment& segment : segments_)
        comb(segment, record);
}

// Many allocations and releases in turn, sizes and order from a seed.
void Sequence::churn(Segment& segment, const Record& record)
{
    Numbers numbers(record.number);
    const U32 count = 16U << record.how % (ordinary_ ? 7 : 3);
    const U32 most = 1 + (record.owner & 15);
    const U32 sharesOfAllocation = 4 + (record.owner >> 4 & 3); // of 10
    for (U32 i = 0; i < count; ++i) {
        if (numbers.below(10) < sharesOfAllocation || segment.grants.empty()) {
            const U32 handle = segment.handle;
            const U32 blocks = 1 + numbers.below(most);
            const U8 owner = ownerFor(segment, static_cast<U8>(numbers.below(256)));
            const U32 address = perform("MM_AllocBlock", handle, {handle, blocks, owner},
                                        [=] { return MM_AllocBlock(handle, blocks, owner); });
            give(segment, address, blocks, owner);
        } else {
            const std::size_t last = segment.grants.size() - 1;
            const std::size_t index = segment.stack ? last : numbers.below(static_cast<U32>(last + 1));
            const U32 blocks = segment.grants[index].blocks;
            const U32 part = segment.stack || numbers.below(4) != 0 ? blocks : 1 + numbers.below(blocks);
            const bool tail = numbers.below(2) != 0;
            releaseGrant(segment, index, tail ? blocks - part : 0, part, 0);
        }
    }
}

// Initialises a placed segment once more, in the same place, sometimes with other blocks.
void Sequence::startAnew(Segment& segment, const Record& record)
{
    const U32 handle = segment.handle;
    if (handle == HEAPHANDLE) // takes the free-memory list, which is gone
        return;
    TMMSegInfo seg = stSegTable[handle];
    const U32 bytes = segment.bytes;
    seg.pubStartAddr = MM_At(segment.start);
    seg.pubEndAddr = MM_At(segment.start + bytes);
    if (record.how % 4 == 0)
        seg.stInfoFromApp.ulBlkSize = record.how % 8 == 0 ? 16 : 64;
    if (bytes < 256 || bytes > kMaxSegmentBytes || bytes / seg.stInfoFromApp.ulBlkSize > 2 * kMostBlocks)
        return;
    seg.stInfoFromApp.ulRetSegSize = bytes;
    perform("MM_SegInitial", handle, {handle, MM_Addr(seg.pubStartAddr), bytes, seg.stInfoFromApp.ulBlkSize},
            [&seg] { return MM_SegInitial(&seg); });
    segment.grants.clear();
    segment.spoiledFor = 0;
    segment.indexed = MM_HasRunIndex(handle) != FALSE;
}

void Sequence::restart(const Record& record)
{
    if (record.how % 4 == 0)
        bringUp();
}

// A misused segment walks from then on: there is more to see when it is soon initialised again, with many free runs.
// Tables for indexes are given back by a restart only.
void Sequence::mend(Segment& segment, const Record& record)
{
    segment.spoiledFor = 0;
    if (!segment.stack)
        takeAll(segment, record); // shows what the list has become
    if (segment.handle == HEAPHANDLE || ++mended_ % 8 == 0) {
        bringUp();
        combAll(record);
        return;
    }
    startAnew(segment, record);
    comb(segment, record);
}

// Misuse -------------------------------------------------------------------------------------------------------------

void Sequence::misuse(Segment& segment, const Record& record)
{
    segment.spoiledFor = 1;
    switch (record.kind % 16) {
    case 0:
    case 1:
    case 2:
    case 3:
    case 4: return releaseWrongly(segment, record);
    case 5:
    case 6: return allocateWrongly(segment, record);
    case 7:
    case 8: return claimWrongly(segment, record);
    case 9:
    case 10: return writeHeader(segment, record);
    case 11:
    case 12: return clear(segment, record);
    case 13: return layOver(segment, record);
    case 14: return permanentWrongly(record);
    default: return startAnew(segment, record);
    }
}

void Sequence::allocateWrongly(Segment& segment, const Record& record)
{
    const U32 handle = record.how < 32 ? record.number % 70 : segment.handle;
    const U32 counts[] = {
        0x80000000,    0xFFFFFFFF, 0xFFFFFFFF - record.number % 64, 0x80000000 + record.number % 64, 0x7FFFFFFF,
        record.number, 0};
    const U32 count = counts[record.owner % std::size(counts)];
    const U8 owner = static_cast<U8>(record.how % 4 == 0 ? record.number >> 8 : ownerFor(segment, record.owner));
    if (record.how % 2 == 0)
        perform("MM_AllocBlock", handle, {handle, count, owner}, [=] { return MM_AllocBlock(handle, count, owner); });
    else
        perform("MM_Malloc", handle, {handle, count, owner}, [=] { return MM_Malloc(handle, count, owner); });
}

void Sequence::releaseWrongly(Segment& segment, const Record& record)
{
    const U32 handle = record.how < 8 ? record.number % 60 : segment.handle;
    const TMMSegInfo& seg = stSegTable[segment.handle];
    const U32 unit = unitBytes(segment.handle);
    const Segment& other = segments_[record.number / 7 % segments_.size()];
    const Run run = freeRun(segment.handle, record.number % 64, record.how % 2 == 0);
    Grant grant = segment.grants.empty() ? lastReleased_ : segment.grants[record.number % segment.grants.size()];
    const U32 few = 1 + record.number / 64 % 9;
    U32 address = grant.address;
    U32 blocks = grant.blocks;

    switch (record.owner / 2 % 16) {
    case 0: address = lastReleased_.address, blocks = lastReleased_.blocks; break;
    case 1: address += few * unit; break;
    case 2: address -= few * unit; break;
    case 3: address += 1 + record.number / 64 % (unit > 1 ? unit - 1 : 1); break;
    case 4: blocks += few; break;
    case 5: address = run.address, blocks = few; break;
    case 6: address = run.address + unit * (1 + record.number / 512 % (run.blocks + 1)), blocks = few; break;
    case 7: address = run.address - few * unit, blocks = few + record.number / 1024 % 4; break;
    case 8:
        if (!other.grants.empty())
            address = other.grants[record.number % other.grants.size()].address;
        break;
    case 9: {
        const U32 places[] = {MM_Addr(seg.pubStartAddr),
                              MM_Addr(seg.pubEndAddr),
                              MM_Addr(seg.pubEndAddr) - unit,
                              MM_Addr(seg.pubEndAddr) - 1,
                              MM_Addr(seg.pubStartAddr) - 1,
                              0,
                              0xFFFFFFFF,
                              sim::kPageOffset,
                              sim::kHighMemory - 4,
                              MM_Addr(seg.pubMapStartAddr),
                              memend,
                              0x1000};
        address = places[record.number / 64 % std::size(places)];
        break;
    }
    case 10: {
        const U32 counts[] = {0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0x80000000 >> seg.ubBlkBit, 0, seg.ulTotalBlkNum};
        blocks = counts[record.number / 64 % std::size(counts)];
        break;
    }
    case 11: address = MM_Addr(seg.pubEndAddr) - few * unit, blocks = few + 1; break;
    case 12: address = run.address + run.blocks * unit, blocks = few; break;
    default: blocks += record.number / 64 % 64; break;
    }

    if (record.how % 4 == 0)
        perform("MM_FreeBlk", segment.handle, {segment.handle, address, blocks},
                [=, held = segment.handle] { return MM_FreeBlk(held, MM_At(address), blocks); });
    else if (record.how % 4 == 1)
        perform("MM_Free", handle, {handle, address, blocks * unit},
                [=] { return MM_Free(handle, MM_At(address), blocks * unit); });
    else
        perform("MM_FreeBlock", handle, {handle, address, blocks},
                [=] { return MM_FreeBlock(handle, MM_At(address), blocks); });
}

void Sequence::claimWrongly(Segment& segment, const Record& record)
{
    const U32 handle = segment.handle;
    if (handle == HEAPHANDLE)
        return;
    const U32 unit = unitBytes(handle);
    const Run run = freeRun(handle, record.number % 64, record.how % 2 == 0);
    U32 address = run.address + record.number / 64 % (run.blocks + 2) * unit;
    U32 blocks = 1 + record.number / 1024 % 16;
    switch (record.owner / 2 % 8) {
    case 0: address = run.address; break;                   // the rest is kept far away
    case 1: address += record.number / 4096 % unit; break;  // between two blocks
    case 2: blocks = run.blocks + record.number % 4; break; // perhaps past the run
    case 3: address = MM_Addr(stSegTable[handle].pubStartAddr); break;
    case 4: blocks = record.number; break;
    default: break; // splits the run
    }
    perform("MM_ReallocBlock", handle, {handle, address, blocks},
            [=] { return MM_ReallocBlock(handle, MM_At(address), blocks); });
}

// Overwrites a header, as a client does that writes past its memory, and lets the manager know.
void Sequence::writeHeader(Segment& segment, const Record& record)
{
    const TMMSegInfo& seg = stSegTable[segment.handle];
    const U32 unit = unitBytes(segment.handle);
    const Run run = freeRun(segment.handle, record.number % 64, record.how % 2 == 0);
    const Run other = freeRun(segment.handle, record.number / 64 % 64, record.how % 4 < 2);
    const U32 offset = record.owner % 16;
    const U32 address = record.how < 24 ? run.address + offset - 6 : run.address + offset % 3 * 4;
    const U32 values[] = {0,
                          1,
                          run.address,
                          other.address,
                          other.blocks,
                          run.blocks + 1,
                          run.blocks - 1,
                          0x80000000,
                          MM_Addr(seg.pubStartAddr) + record.number / 4096 % (seg.ulTotalBlkNum + 1) * unit,
                          other.address + unit,
                          record.number,
                          0xFFFFFFFF};
    const U32 value = values[record.number / 128 % std::size(values)];
    const U32 bytes = record.how < 24 ? 1 + record.owner / 16 % 4 : 4;
    if (!Machine::exists(address, bytes))
        return;
    const bool announcedFirst = record.how % 8 < 4;
    perform("poke", segment.handle, {address, value, bytes}, [=] {
        if (announcedFirst)
            MM_MemoryWritten(address, bytes);
        std::memcpy(MM_At(address), &value, bytes);
        if (!announcedFirst)
            MM_MemoryWritten(address, bytes);
        return 0;
    });
}

// Fills memory that may hold free runs, or rows of the configuration table with a segment in them.
void Sequence::clear(Segment& segment, const Record& record)
{
    const Run run = freeRun(segment.handle, record.number % 64, record.how % 2 == 0);
    if (record.how < 64) {
        const char* const names[] = {"$UEV", "$JCB", "$FIL", "$ALL"};
        const char* const name = names[record.number % std::size(names)];
        U8 id[4];
        setName(id, name);
        perform(record.how < 16 ? "MM_RestoreMCT" : "MM_ClearSegment", segment.handle, {record.number % 4},
                [&] { return record.how < 16 ? MM_RestoreMCT() : MM_ClearSegment(id); });
        return;
    }
    const U32 address = run.address + record.number / 64 % 64 - 32;
    const U32 bytes = record.how < 160 ? 1 + record.owner % 32 : 1 + record.number / 4096 % 65536;
    const TMemsetInfo info{address, static_cast<S32>(record.number >> 30), bytes};
    perform("MM_CMD_MEMSET", segment.handle, {address, record.number >> 30, bytes}, [=] {
        std::memcpy(MM_At(sim::kScratch), &info, sizeof info);
        return Velmora_MM_ioctl(MM_CMD_MEMSET, sim::kScratch);
    });
}

// Lays a segment over another one: by a row of the configuration table, or by initialising it there.
void Sequence::layOver(Segment& segment, const Record& record)
{
    const Segment& under = segments_[record.number % segments_.size()];
    const TMMSegInfo& below = stSegTable[under.handle];
    const U32 start = (under.handle == HEAPHANDLE ? stSegStartAddr.aulHeapAddr[0] : MM_Addr(below.pubStartAddr)) +
                      (record.number / 16 % 4096 & ~3U);
    const U32 bytes = 512 + (record.number >> 16 & 0xFFFC);
    if (record.how % 4 != 0) {
        if (segment.handle == HEAPHANDLE || segment.stack)
            return;
        TMMSegInfo seg = stSegTable[segment.handle];
        seg.pubStartAddr = MM_At(start);
        seg.pubEndAddr = MM_At(start + bytes);
        seg.stInfoFromApp.ulRetSegSize = bytes;
        perform("MM_SegInitial", segment.handle, {segment.handle, start, bytes, seg.stInfoFromApp.ulBlkSize},
                [&seg] { return MM_SegInitial(&seg); });
        segment.grants.clear();
        return;
    }
    if (record.number % 3 == 0) { // the free memory begins behind the fixed segments once more
        perform("MM_ConstructSegLinkedList", segment.handle, {}, [] { return MM_ConstructSegLinkedList(); });
        const char text[] = {'N', 'E', 'W', static_cast<char>('0' + overlays_++ % 10), 0};
        create(text, shapeAt(8 + record.number % 8 * 8));
        return;
    }
    U8 row[4];
    setName(row, kFixedNames[record.number / 4 % std::size(kFixedNames)]);
    U8 name[4] = {'O', 'V', 'R', static_cast<U8>('0' + overlays_++ % 10)};
    perform("MM_DeleteSegment", under.handle, {record.number / 4 % 3}, [&] { return MM_DeleteSegment(row); });
    perform("MM_AddSegment", under.handle, {bytes, start}, [&] { return MM_AddSegment(name, bytes, MM_At(start)); });
    Shape shape = shapeAt(8 + record.number % 8 * 8);
    shape.type = FIXED;
    const char text[] = {'O', 'V', 'R', static_cast<char>(name[3]), 0};
    create(text, shape);
}

void Sequence::permanentWrongly(const Record& record)
{
    const Segment& any = segments_[record.how % 8 != 0 ? segments_.size() - 1 : record.segment % segments_.size()];
    const Run run = freeRun(any.handle, record.number % 64, true);
    const U32 address =
        record.how % 2 == 0 || any.grants.empty() ? run.address : any.grants[record.number % any.grants.size()].address;
    const U32 blocks = record.number / 64 % (record.how % 4 < 2 ? 100 : stSegTable[HEAPHANDLE].ulTotalBlkNum + 64);
    switch (record.owner % 4) {
    case 0:
        perform("MM_SetPermanentBlk", HEAPHANDLE, {address, blocks},
                [=] { return MM_SetPermanentBlk(address, blocks), 0; });
        break;
    case 1:
        perform("MM_ReleasePermanentBlk", HEAPHANDLE, {address, blocks},
                [=] { return MM_ReleasePermanentBlk(address, blocks), 0; });
        break;
    case 2: perform("MM_RlsAllPermanentBlk", HEAPHANDLE, {}, [] { return MM_RlsAllPermanentBlk(), 0; }); break;
    default:
        perform("MM_CheckPermanentBlk", HEAPHANDLE, {address, blocks},
                [=] { return MM_CheckPermanentBlk(address, blocks); });
    }
}

} // namespace velmora::fuzz
