// Steps of many operations: combs of free runs, churn, segments initialised once more.
#include "sequence.h"

#include <algorithm>

#include "kernel/mm/mm/MM_RunIndex.h"
#include "weights.h"

namespace velmora::fuzz {

using namespace test;

namespace {

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

} // namespace

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
    const U32 most = effort_ > kLong    ? Weights::teethOfLongest
                     : effort_ == kLong ? Weights::teethOfLong
                     : ordinary_        ? Weights::teeth[record.how >> 1 & 3]
                                        : Weights::teethWithMisuse;
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

void Sequence::restart(Segment&, const Record& record)
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

} // namespace velmora::fuzz
