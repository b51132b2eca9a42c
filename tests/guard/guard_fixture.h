// What the guarded build's tests share: a started controller, the state before and after, the books.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "controller/manager_state.h"
#include "guard/commands.h"
#include "kernel/mm/guard/MM_Guard.h"
#include "kernel/mm/mm/MM_Map.h"

namespace velmora::guard {

inline constexpr U32 kAreaStart = 0x95100000, kAreaEnd = 0x9DF00000, kFloatStart = 0x95312000;
inline constexpr U32 kRefused = 0xFFFFFFFF;

class GuardTest : public ::testing::Test
{
protected:
    GuardTest() { boot(); }

    static void boot()
    {
        sim::bootController();
        EXPECT_EQ(enter(), ENOERR);
        EXPECT_EQ(startLibrary(), ENOERR);
        machine().takeLog();
    }

    static U32 segment(const Shape& shape)
    {
        U32 handle = 0;
        EXPECT_EQ(create(shape, &handle), ENOERR) << shape.name;
        return handle;
    }

    // The lines since the last call that begin like this.
    static unsigned lines(const std::string& begin)
    {
        unsigned count = 0;
        for (const std::string& message : machine().takeLog())
            count += message.starts_with("MM_Guard: " + begin);
        return count;
    }

    // Runs a call that is refused with a code and one line, and changes nothing.
    template <class Call> static void expectRefused(const std::string& line, int code, Call call)
    {
        machine().takeLog();
        const std::string before = sim::dumpManagerState();
        EXPECT_EQ(static_cast<int>(call()), code) << line;
        EXPECT_EQ(lines(line), 1U) << line;
        EXPECT_EQ(sim::dumpManagerState(), before) << line;
    }

    // The list in memory is that of the free blocks, both ways, and the books balance.
    static void expectWhole(U32 handle)
    {
        const TMMSegInfo& seg = stSegTable[handle];
        U32 free = 0, largest = 0;
        const TMMBlkStr* last = nullptr;
        for (const TMMBlkStr* run = astBlkHead[handle].pstBlk; run != nullptr; run = run->pstNext) {
            ASSERT_TRUE(sim::Machine::exists(MM_Addr(run), 12));
            ASSERT_EQ(MM_Addr(run->pstBack), MM_Addr(last));
            ASSERT_TRUE(last == nullptr || MM_Addr(last) < MM_Addr(run));
            free += run->ulSize;
            largest = std::max<U32>(largest, run->ulSize);
            last = run;
        }
        EXPECT_EQ(MM_Addr(astBlkTail[handle].pstBlk), MM_Addr(last));
        EXPECT_EQ(free, seg.ulTotalFreeBlkNum);
        EXPECT_EQ(largest, seg.ulLargestBlkSize);
        EXPECT_EQ(seg.ulTotalFreeBlkNum + seg.ulTotalAllocBlkNum, seg.ulTotalBlkNum);
        EXPECT_TRUE(MM_GuardAgrees(handle));
    }

    static TMMBlkStr& node(U32 address) { return *MM_At<TMMBlkStr>(address); }
};

} // namespace velmora::guard
