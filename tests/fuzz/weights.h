// What a sequence does how often, and with what: the numbers behind the bytes.
#pragma once

#include <iterator>

#include "sequence.h"

namespace velmora::fuzz {

// A kind of something, chosen by a number below the sum of all weights in its table.
template <class Kind, std::size_t Count> constexpr U32 sumOf(const Kind (&kinds)[Count])
{
    U32 sum = 0;
    for (const Kind& kind : kinds)
        sum += kind.weight;
    return sum;
}

template <class Kind, std::size_t Count> constexpr const Kind& chosen(const Kind (&kinds)[Count], U32 number)
{
    const Kind* kind = kinds;
    while (number >= kind->weight)
        number -= kind++->weight;
    return *kind;
}

struct Sequence::Weights {
    struct Play {
        U32 weight;
        void (Sequence::*play)(Segment&, const Record&);
    };
    // What a correct client does: of 256.
    static constexpr Play steps[] = {
        {96, &Sequence::allocate}, {96, &Sequence::release},  {14, &Sequence::claim},  {6, &Sequence::collect},
        {6, &Sequence::permanent}, {10, &Sequence::write},    {10, &Sequence::query},  {3, &Sequence::comb},
        {12, &Sequence::churn},    {2, &Sequence::startAnew}, {1, &Sequence::restart},
    };
    // What an incorrect one does: of 16.
    static constexpr Play misuses[] = {
        {5, &Sequence::releaseWrongly},   {2, &Sequence::allocateWrongly}, {2, &Sequence::claimWrongly},
        {2, &Sequence::writeHeader},      {2, &Sequence::clear},           {1, &Sequence::layOver},
        {1, &Sequence::permanentWrongly}, {1, &Sequence::startAnew},
    };

    // How many blocks an allocation asks for: of 32.
    struct Request {
        U32 weight;
        U32 (*blocks)(const TMMSegInfo& seg, U32 number);
    };
    static constexpr Request requests[] = {
        {1, [](const TMMSegInfo& seg, U32) -> U32 { return seg.ulLargestBlkSize; }},
        {1, [](const TMMSegInfo& seg, U32) -> U32 { return seg.ulLargestBlkSize + 1; }},
        {1, [](const TMMSegInfo& seg, U32 number) { return 1 + number % (seg.ulTotalBlkNum / 4 + 1); }},
        {1,
         [](const TMMSegInfo& seg, U32 number) {
             const U32 special[] = {0, 0x7FFFFFFF, seg.ulTotalBlkNum, seg.ulTotalBlkNum + 1, seg.ulTotalFreeBlkNum};
             return special[number % std::size(special)];
         }},
        {4, [](const TMMSegInfo&, U32 number) { return 1 + number % 64; }},
        {5, [](const TMMSegInfo&, U32) { return 1U; }},
        {19, [](const TMMSegInfo&, U32 number) { return 1 + number % 8; }},
    };

    // Wrong steps of 2048, and the most blocks of a segment: each by three bits of the head.
    static constexpr U32 misuseRates[] = {16, 32, 64, 128, 128, 256, 256, 512};
    static constexpr U32 sizeLimits[] = {200, 1000, 1000, 1000, 4000, 4000, 20'000, kMostBlocks};

    // Block sizes. Blocks that hold no header are seldom, for their lists soon break: of 256 so many have one that does.
    static constexpr U32 blockBytes[] = {16,  64, 4096, 32, 128, 1024, 256, 16, 64,
                                         100, 24, 48,   17, 512, 2048, 31,  20, 1000};
    static constexpr U32 tinyBlockBytes[] = {8, 4, 15, 12, 1};
    static constexpr U32 holdsHeader = 236, holdsHeaderInOrdinary = 250;
    static constexpr U8 mapBits[] = {0, 8, 1, 2, 4};

    // The most runs that a comb leaves: by two bits of the step, in long sequences, and where clients make mistakes; there
    // the list is short, so that much can happen to it.
    static constexpr U32 teeth[] = {100, 300, 1000, 3000};
    static constexpr U32 teethOfLong = 10'000, teethOfLongest = 30'000, teethWithMisuse = 200;
};

static_assert(sumOf(Sequence::Weights::steps) == 256);
static_assert(sumOf(Sequence::Weights::misuses) == 16);
static_assert(sumOf(Sequence::Weights::requests) == 32);

} // namespace velmora::fuzz
