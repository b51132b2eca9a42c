// The bits of blocks and the tables of free runs, beside a plain array.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "kernel/mm/guard/MM_FreeRuns.h"

namespace velmora::guard {
namespace {

class Model
{
public:
    explicit Model(U32 count) : taken_(count, true) {}

    void set(U32 first, U32 count, bool taken) { std::fill_n(taken_.begin() + static_cast<int>(first), count, taken); }
    U32 next(U32 from, bool taken) const
    {
        for (; from < taken_.size(); ++from)
            if (taken_[from] == taken)
                return from;
        return MM_NO_BLOCK;
    }
    U32 last(U32 below, bool taken) const
    {
        while (below-- > 0)
            if (taken_[below] == taken)
                return below;
        return MM_NO_BLOCK;
    }
    bool all(U32 first, U32 count, bool taken) const
    {
        for (U32 i = first; i < first + count; ++i)
            if (taken_[i] != taken)
                return false;
        return true;
    }
    // The highest run of at least so many blocks.
    TMMRun find(U32 blocks) const
    {
        for (U32 past = static_cast<U32>(taken_.size()); past != MM_NO_BLOCK;) {
            const U32 end = last(past, false);
            if (end == MM_NO_BLOCK)
                break;
            const U32 first = last(end, true) + 1;
            if (end + 1 - first >= blocks)
                return {first, end + 1 - first};
            past = first;
        }
        return {MM_NO_BLOCK, 0};
    }
    U32 startBelow(U32 below) const
    {
        while (below-- > 1)
            if (!taken_[below] && taken_[below - 1])
                return below;
        return MM_NO_BLOCK;
    }
    U32 size() const { return static_cast<U32>(taken_.size()); }
    bool taken(U32 i) const { return taken_[i]; }

private:
    std::vector<bool> taken_;
};

TEST(GuardTables, BitsAnswerAsAnArrayDoesAtEverySizeOfALevel)
{
    for (const U32 count : {1U, 31U, 32U, 33U, 1023U, 1024U, 1025U, 32768U, 32800U}) {
        std::mt19937 random(count);
        std::vector<U32> storage(CMMBlockBits::StorageWords(count), 0);
        CMMBlockBits bits;
        bits.Init(storage.data(), count);
        Model model(count);
        for (unsigned step = 0; step < 200; ++step) {
            const U32 first = random() % count;
            const U32 blocks = 1 + random() % std::min<U32>(count - first, random() % 4 == 0 ? count : 70);
            const bool take = random() % 2 == 0;
            if (take) {
                bits.Take(first, blocks);
                model.set(first, blocks, true);
            } else {
                const bool given = bits.Give(first, blocks);
                ASSERT_EQ(given, model.all(first, blocks, true)) << count;
                if (given)
                    model.set(first, blocks, false);
            }
            const U32 from = random() % count;
            if (const U32 taken = model.next(from, true); taken != MM_NO_BLOCK) {
                ASSERT_EQ(bits.NextTaken(from), taken) << count;
            }
            ASSERT_EQ(bits.IsTaken(from), model.taken(from));
            const U32 part = 1 + random() % std::min<U32>(count - from, 100);
            ASSERT_EQ(bits.AllTaken(from, part), model.all(from, part, true));
            ASSERT_EQ(bits.AllFree(from, part), model.all(from, part, false));
        }
    }
}

TEST(GuardTables, RunsAreFoundAsAWalkFromTheTopFindsThem)
{
    constexpr U32 bottom = CMMFreeRuns::FIRST_BLOCK;
    for (const U32 count : {64U, 320U, 5000U, 12000U}) {
        std::mt19937 random(count);
        std::vector<U32> storage(CMMFreeRuns::StorageWords(count), 0);
        CMMFreeRuns runs;
        runs.Init(storage.data(), count);
        Model model(count);
        const auto give = [&](TMMRun blocks) {
            CMMFreeRuns::TMMGiven given{};
            const auto note = [&](const CMMFreeRuns::TMMGiven& noted) { given = noted; };
            ASSERT_TRUE(runs.Give(blocks, note));
            EXPECT_EQ(given.ulLower, model.startBelow(blocks.ulFirst));
            EXPECT_EQ(given.ulLowerSize, model.taken(blocks.ulFirst - 1) ? 0 : blocks.ulFirst - given.ulLower);
            EXPECT_EQ(given.ulUpper, model.next(blocks.End(), false));
            if (given.ulUpper == blocks.End()) {
                EXPECT_EQ(given.ulUpperSize, model.next(blocks.End(), true) - blocks.End());
                EXPECT_EQ(given.ulPastUpper, model.next(model.next(blocks.End(), true), false));
            } else {
                EXPECT_EQ(given.ulUpperSize, 0);
            }
            EXPECT_FALSE(runs.Give(blocks, note)) << "twice";
            model.set(blocks.ulFirst, blocks.ulSize, false);
        };
        give({bottom, count - 1 - bottom});
        for (unsigned step = 0; step < 2000; ++step) {
            const U32 blocks = 1 + random() % (random() % 16 == 0 ? 400 : 20);
            const CMMFreeRuns::TMMFound run = runs.Find(blocks);
            const TMMRun expected = model.find(blocks);
            ASSERT_EQ(run.ulFirst, expected.ulFirst) << count << " " << step;
            ASSERT_EQ(run.ulSize, expected.ulSize) << count << " " << step;
            if (run.Is()) {
                ASSERT_EQ(runs.PlaceOf(run).ulLower, model.startBelow(run.ulFirst));
                ASSERT_EQ(runs.PlaceOf(run).ulUpper, model.next(run.End(), false));
            }
            if (run.Is() && random() % 8 == 0) {
                const U32 skip = random() % (run.ulSize - blocks + 1);
                runs.CutInside(run, {run.ulFirst + skip, blocks});
                model.set(run.ulFirst + skip, blocks, true);
            } else if (run.Is() && random() % 8 != 0) {
                runs.CutEnd(run, blocks);
                model.set(run.End() - blocks, blocks, true);
            }
            const U32 first = bottom + random() % (count - 1 - bottom);
            U32 given = 0;
            while (given < blocks && first + given < count - 1 && model.taken(first + given))
                ++given;
            if (given > 0)
                give({first, given});
            ASSERT_EQ(runs.Largest(), [&] {
                U32 largest = 0;
                for (U32 at = 0; (at = model.next(at, false)) != MM_NO_BLOCK;) {
                    const U32 end = model.next(at, true);
                    largest = std::max(largest, end - at);
                    at = end;
                }
                return largest;
            }());
            if (step % 64 == 0) {
                ASSERT_TRUE(runs.Agree());
            }
        }
    }
}

} // namespace
} // namespace velmora::guard
