// How a sequence brings the controller up: its segments, and the heap in pieces.
#include "sequence.h"

#include <algorithm>
#include <cstring>

#include "kernel/mm/mm/MM_RunIndex.h"
#include "weights.h"

namespace velmora::fuzz {

using namespace test;

namespace {

constexpr unsigned kFloatSegments = 4;

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

} // namespace

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
    using W = Weights;
    Shape shape{};
    const U8 size = byteAt(place);
    shape.blockBytes = size < (ordinary_ ? W::holdsHeaderInOrdinary : W::holdsHeader)
                           ? W::blockBytes[size % std::size(W::blockBytes)]
                           : W::tinyBlockBytes[size % std::size(W::tinyBlockBytes)];
    shape.mapBits = W::mapBits[byteAt(place + 1) % std::size(W::mapBits)];
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

} // namespace velmora::fuzz
