// The simulated machine: that it fails where a real one would, and says what happened.

#include <stdexcept>
#include <unistd.h>

#include "support/manager_fixture.h"

namespace velmora::test {
namespace {

class TheMachine : public ManagerTest
{
};

TEST_F(TheMachine, RamAndScratchAreZeroAfterPowerOn)
{
    *at(0xA3FFFFFF) = 1;
    *at(sim::kScratch) = 1;
    machine().powerOn();
    EXPECT_EQ(*at(0xA3FFFFFF), 0);
    EXPECT_EQ(*at(sim::kScratch), 0);
}

TEST_F(TheMachine, PowerOnOfTheMachineAloneLeavesTheManagersData)
{
    start();
    machine().powerOn();
    EXPECT_TRUE(machine().devices().empty());
    EXPECT_EQ(memstart, kAreaStart);
}

TEST_F(TheMachine, AWaitOnAHeldLockEndsInAReport)
{
    MMP_LockIrq(free_lock);
    const Outcome end = machine().run([] {
        MMP_LockIrq(free_lock);
        return 0u;
    });
    EXPECT_EQ(end.kind, Outcome::Kind::Hang);
    EXPECT_EQ(end.describe("ioctl 0x5303"), "ioctl 0x5303 waits for ever on free_lock, which is already held");
}

TEST_F(TheMachine, LocksTurnInterruptsOffAndOn)
{
    MMP_LockIrq(push_lock);
    EXPECT_TRUE(machine().lockHeld(push_lock));
    EXPECT_FALSE(machine().lockHeld(pop_lock));
    EXPECT_TRUE(machine().interruptsOff());
    MMP_UnlockIrq(push_lock);
    EXPECT_FALSE(machine().lockHeld(push_lock));
    EXPECT_FALSE(machine().interruptsOff());
}

TEST_F(TheMachine, AnAccessToAnAddressThatDoesNotExistEndsInAReport)
{
    const Outcome end = machine().run([] {
        MMP_MemSet(at(sim::kScratch + sim::kScratchBytes - 4), 0, 8);
        return 0u;
    });
    EXPECT_EQ(end.kind, Outcome::Kind::Oops);
    EXPECT_EQ(end.address, sim::kScratch + sim::kScratchBytes);
    EXPECT_EQ(end.describe("memset"), "memset touched 0x10010000, which does not exist");
}

TEST_F(TheMachine, AnAccessThatNobodyAnnouncedIsCaughtToo)
{
    const Outcome end = machine().run([] { return static_cast<U32>(*const_cast<volatile U8*>(at(0xA4000123))); });
    EXPECT_EQ(end.kind, Outcome::Kind::Oops);
    EXPECT_EQ(end.address, 0xA4000123u);
}

TEST_F(TheMachine, FirstMissingByteOfARange)
{
    EXPECT_EQ(Machine::firstMissing(0x94000000, sim::kRamBytes), std::nullopt);
    EXPECT_EQ(Machine::firstMissing(0x94000000, sim::kRamBytes + 1), 0xA4000000u);
    EXPECT_EQ(Machine::firstMissing(0x93FFFFFF, 2), 0x93FFFFFFu);
    EXPECT_EQ(Machine::firstMissing(0xFFFFFFFF, 1), 0xFFFFFFFFu);
    EXPECT_EQ(Machine::firstMissing(0, 0), std::nullopt);
    EXPECT_EQ(Machine::firstMissing(sim::kScratch, sim::kScratchBytes + 1), 0x10010000u);
}

TEST_F(TheMachine, UserCopiesStopAtTheFirstByteThatIsNotThere)
{
    const U32 last = sim::kScratch + sim::kScratchBytes - 3;
    fill(last, 0x77, 3);
    U8 record[8] = {};
    EXPECT_EQ(MMP_CopyFromUser(record, last, sizeof record), 5u);
    EXPECT_EQ(record[2], 0x77);
    EXPECT_EQ(record[3], 0);
    EXPECT_EQ(MMP_CopyFromUser(record, last + 3, sizeof record), 8u);
    EXPECT_EQ(MMP_CopyToUser(last, record + 3, 5), 2u);
    EXPECT_EQ(*at(last + 2), 0);
}

TEST_F(TheMachine, AccessEndsAtTheTasksLimit)
{
    EXPECT_TRUE(MMP_AccessOk(0x92FFFFF8, 8));
    EXPECT_FALSE(MMP_AccessOk(0x92FFFFF9, 8));
    EXPECT_FALSE(MMP_AccessOk(0xFFFFFFFC, 8));
    EXPECT_TRUE(MMP_AccessOk(0, 4));
}

TEST_F(TheMachine, TheLogKeepsEveryByteOfAMessage)
{
    MMP_Print("a%cb%s", 0, "");
    EXPECT_EQ(machine().takeLog(), std::vector<std::string>{std::string("a\0b", 3)});
    EXPECT_TRUE(machine().takeLog().empty());
}

TEST_F(TheMachine, DevicesGetMajorsFrom254Down)
{
    EXPECT_EQ(MMP_RegisterChrdev("one"), 254);
    EXPECT_EQ(MMP_RegisterChrdev("two"), 253);
    MMP_UnregisterChrdev(254, "other"); // not its name: stays
    EXPECT_EQ(machine().devices().size(), 2u);
    MMP_UnregisterChrdev(254, "one");
    EXPECT_EQ(MMP_RegisterChrdev("three"), 254);
}

TEST_F(TheMachine, RamHasTheSizeThatItIsSwitchedOnWith)
{
    machine().powerOn(0x20000000);
    EXPECT_EQ(MMP_HighMemory(), 0xB4000000u);
    EXPECT_TRUE(MMP_PfnValid(0x1FFFF));
    EXPECT_FALSE(MMP_PfnValid(0x20000));
    *at(0xB3FFFFFF) = 0x77;
    machine().powerOn(0x1000);
    EXPECT_EQ(Machine::firstMissing(0x94000000, 0x1001), 0x94001000u);
    const Outcome end = machine().run([] { return static_cast<U32>(*const_cast<volatile U8*>(at(0x94001000))); });
    EXPECT_EQ(end.kind, Outcome::Kind::Oops);
    machine().powerOn();
    EXPECT_EQ(MMP_HighMemory(), 0xA4000000u);
    EXPECT_EQ(*at(0xA3FFFFFF), 0);
}

TEST_F(TheMachine, RamIsMadeOfWholePages)
{
    for (const U32 bytes : {0u, 1u, 0x1001u, 0x40001000u})
        EXPECT_THROW(machine().powerOn(bytes), std::invalid_argument);
}

TEST_F(TheMachine, NobodyWhoHasTheRamsFileCanChangeItsSize)
{
    EXPECT_NE(ftruncate(machine().ramFile(), 0), 0);
    EXPECT_NE(ftruncate(machine().ramFile(), 0x20000000), 0);
}

TEST_F(TheMachine, CopiesOutAreCountedForEachCommand)
{
    const U32 record = 0;
    machine().run([&] { return MMP_CopyToUser(sim::kScratch + 4, &record, 4); });
    EXPECT_EQ(machine().copiedOut(), 8u);
    machine().run([&] { return MMP_CopyToUser(sim::kScratch + sim::kScratchBytes, &record, 4); });
    EXPECT_EQ(machine().copiedOut(), 0u);
}

TEST_F(TheMachine, OneCallOfAServiceFailsOnDemandAndTheNextWorks)
{
    U32 record = 7;
    machine().faults.failing = sim::ServiceCall{sim::KernelService::CopyOut, 2};
    EXPECT_EQ(MMP_CopyToUser(sim::kScratch, &record, 4), 0u);
    EXPECT_EQ(MMP_CopyToUser(sim::kScratch + 4, &record, 4), 4u);
    EXPECT_EQ(MMP_CopyFromUser(&record, sim::kScratch + 4, 4), 0u);
    EXPECT_EQ(record, 0u); // nothing was moved
    EXPECT_EQ(MMP_CopyToUser(sim::kScratch, &record, 4), 0u);
    EXPECT_EQ(machine().calls(sim::KernelService::CopyOut), 3u);
    machine().powerOn();
    EXPECT_EQ(machine().calls(sim::KernelService::CopyOut), 0u);
}

TEST_F(TheMachine, OthersMayDoSomethingBeforeEachAccess)
{
    machine().faults.meanwhile = [] { *at(0x95000004) = 9; };
    machine().run([] {
        MMP_MemSet(at(0x95000000), 1, 4);
        return 0u;
    });
    EXPECT_EQ(*at(0x95000004), 9);
    EXPECT_EQ(*at(0x95000003), 1);
}

TEST_F(TheMachine, AStopOutsideACommandEndsTheProcessWithAReport)
{
    EXPECT_DEATH(
        {
            machine().powerOn();
            MMP_MemSet(nullptr, 0, 1);
        },
        "a call outside any command touched 0x00000000, which does not exist");
}

} // namespace
} // namespace velmora::test
