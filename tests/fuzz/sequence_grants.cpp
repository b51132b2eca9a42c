// What there is while a sequence is played: segments, free runs, memory that clients hold.
#include "sequence.h"

#include <algorithm>
#include <vector>

#include "weights.h"

namespace velmora::fuzz {

using namespace test;

namespace {

constexpr U32 kMaxNodes = 400'000; // a list that is longer is taken for endless

} // namespace

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

} // namespace velmora::fuzz
