// Module load and unload, the big physical area, mapping, the proc file.
#include "controller/proc_file.h"
#include "support/manager_fixture.h"

namespace velmora::test {
namespace {

class Module : public ManagerTest
{
protected:
    static std::string areaLine(const char* a, const char* b)
    {
        return std::string("****** A : [0x") + a + "], B : [0x" + b + "], PAGE_OFFSET : [0x94000000] *****\n";
    }
    static inline const std::string kNoArea =
        "printer_mm_init: \nCan't get Big Memory Info, so can't install MM Driver !\n";

    // The entry's answer to a request, and what it asked of the kernel.
    static S32 map(U32 offset, U32 bytes, bool sync, sim::MapTarget& target)
    {
        TMMMapRequest request{offset >> 12, 0x20000000, 0x20000000 + bytes, sync, &target};
        const S32 result = Velmora_MM_mmap(&request);
        pageOffset = request.ulPgOff;
        return result;
    }
    static inline U32 pageOffset = 0;
};

TEST_F(Module, LoadTakesTheAreaWithAMebibyteOffEachEnd)
{
    EXPECT_EQ(load("95000000-96000000"), 0);
    EXPECT_EQ(log(),
              (std::vector<std::string>{areaLine("95000000", "95F00000"), "bigphysares : 0x95100000 ~ 0x95f00000\n"}));
    EXPECT_EQ(memstart, 0x95100000u);
    EXPECT_EQ(memend, 0x95F00000u);
    EXPECT_EQ(*pubSegMemStartAddr, memstart);
    EXPECT_EQ(*pubSegMemEndAddr, memend);
}

TEST_F(Module, LoadRegistersTheDeviceAndTheProcFile)
{
    EXPECT_EQ(load("95000000-96000000"), 0);
    ASSERT_EQ(machine().devices().size(), 1u);
    EXPECT_EQ(machine().devices().begin()->second, "Velmora_MM");
    EXPECT_EQ(machine().procEntries(), (std::map<std::string, U32>{{"velmora_mm", 0600}}));
}

TEST_F(Module, UnloadRemovesBothAndKeepsTheTables)
{
    start();
    const U32 handle = createBlocks("BLK0", 0x10000, 0x1000);
    printer_mm_exit();
    EXPECT_TRUE(machine().devices().empty());
    EXPECT_TRUE(machine().procEntries().empty());
    EXPECT_EQ(MM_GetTotBlk(handle), 16u);
    EXPECT_EQ(memstart, kAreaStart);
}

TEST_F(Module, LoadRefusesAnAreaThatIsNotAboveTheLinearMapsStart)
{
    const struct {
        const char *text, *a, *b;
    } cases[] = {
        {"94000000-96000000", "94000000", "95F00000"}, // a must be above
        {"95000000-94100000", "95000000", "94000000"}, // so must the reduced b
        {"", "0", "FFF00000"},                         // nothing given: b wraps
        {"nonsense", "0", "FFF00000"},                 //
        {"95000000", "95000000", "FFF00000"},          // no hyphen: see below, a alone is enough
    };
    for (unsigned i = 0; i < 4; ++i) {
        powerOn();
        EXPECT_EQ(load(cases[i].text), -1) << cases[i].text;
        EXPECT_EQ(log(), (std::vector{areaLine(cases[i].a, cases[i].b), kNoArea}));
        EXPECT_EQ(memstart, 0u);
        EXPECT_EQ(memend, 0u);
        EXPECT_TRUE(machine().devices().empty());
        EXPECT_EQ(pubSegMemStartAddr, &memstart); // pointed even when the parse fails
        EXPECT_EQ(pubSegMemEndAddr, &memend);
    }
    powerOn();
    EXPECT_EQ(load(cases[4].text), 0); // the missing b wraps to above the start: no check forbids it
    EXPECT_EQ(memend, 0xFFF00000u);
}

TEST_F(Module, AFailedSecondLoadKeepsTheArea)
{
    EXPECT_EQ(load("95000000-96000000"), 0);
    EXPECT_EQ(load("x"), -1);
    EXPECT_EQ(memstart, 0x95100000u);
    EXPECT_EQ(memend, 0x95F00000u);
}

TEST_F(Module, TheParameterIsReadAsTheScanFormatReadsIt)
{
    const struct {
        const char* text;
        U32 start, end; // after the margins; 0: the load fails
    } cases[] = {
        {"95000000-96000000", 0x95100000, 0x95F00000},
        {"  95000000-96000000", 0x95100000, 0x96000000 / 16 - 0x100000}, // cut to 17 characters: b is 0x9600000
        {" 95000000-9600000a", 0x95100000, 0x9600000 - 0x100000},
        {"9500aBcD-9600ABCd", 0x9510ABCD, 0x95F0ABCD},
        {"950000001-9600000", 0x95100000, 0xFFF00000},    // nine digits: the hyphen does not follow the eighth
        {"95000000 -9600000", 0x95100000, 0xFFF00000},    // a blank before the hyphen does not match
        {"95000000- 9600000", 0x95100000, 0x9500000},     // one after it does
        {"\t\v95000000-\n\f\r0", 0x95100000, 0xFFF00000}, // as any other white space
        {"+95000000-9600000", 0, 0},                      // no sign
        {"-95000000-9600000", 0, 0},
        {"95000000-+9600000", 0x95100000, 0xFFF00000},
        {"95000000--9600000", 0x95100000, 0xFFF00000},
        {"g5000000-96000000", 0, 0},
        {"95000000-96g", 0x95100000, 0xFFF00096}, // what follows a number ends it: 0x96 less the margin
        {"95000000-0x960000", 0x95100000, 0x860000},
        {"\x0E"
         "95000000",
         0, 0}, // the characters next to the white space
        {"\b95000000", 0, 0},
        {"9500000:", 0, 0}, // those next to the digits
        {"/", 0, 0},
        {":", 0, 0},
        {"`", 0, 0},
        {"G", 0, 0},
        {"095000000-9600000", 0, 0},                   // a leading zero is a digit: 0x09500000
        {"ffffffff-96000000", 0x000FFFFF, 0x95F00000}, // the start wraps: no check forbids it
    };
    for (const auto& c : cases) {
        powerOn();
        const bool valid = c.end > 0x94000000;
        EXPECT_EQ(load(c.text), valid ? 0 : -1) << c.text;
        EXPECT_EQ(memstart, valid ? c.start : 0) << c.text;
        EXPECT_EQ(memend, valid ? c.end : 0) << c.text;
    }
}

// More than the parameter can hold.
TEST_F(Module, EightCharactersOfTheSecondNumberAreRead)
{
    EXPECT_EQ(get_bigphysarea("95000000-960000001"), 0);
    EXPECT_EQ(memend, 0x95F00000u);
}

TEST_F(Module, APrefixCountsTowardsTheEightCharacters)
{
    EXPECT_EQ(load("0x950000-0x960000"), -1);
    EXPECT_EQ(log(), (std::vector{areaLine("950000", "860000"), kNoArea}));
    EXPECT_EQ(load("0X950000-96000000"), -1);
    EXPECT_EQ(log(), (std::vector{areaLine("950000", "95F00000"), kNoArea}));
}

TEST_F(Module, APrefixIsAZeroAndAnX)
{
    EXPECT_EQ(get_bigphysarea("9x950000-96000000"), -1);
    EXPECT_EQ(log(), std::vector{areaLine("9", "FFF00000")});
    EXPECT_EQ(get_bigphysarea("0x9500000-96000000"), -1); // seven digits: the sixth is followed by no hyphen
    EXPECT_EQ(log(), std::vector{areaLine("950000", "FFF00000")});
}

TEST_F(Module, APrefixWithoutADigitIsTheNumber0)
{
    EXPECT_EQ(load("0x-95000000"), -1);
    EXPECT_EQ(log(), (std::vector{areaLine("0", "94F00000"), kNoArea}));
    EXPECT_EQ(load("95000000-0x"), 0);
    EXPECT_EQ(memend, 0xFFF00000u); // 0 less the margin
}

TEST_F(Module, SeventeenCharactersOfTheParameterAreKept)
{
    EXPECT_EQ(load("95000000-96000000ffff"), 0);
    EXPECT_EQ(memend, 0x95F00000u);
}

TEST_F(Module, LoadFailsWithTheKernelsCodeWhenTheDeviceIsRefused)
{
    machine().faults.registerResult = -16;
    EXPECT_EQ(load("95000000-96000000"), -16);
    const auto messages = log();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[2], "printer_mm_init: \nMemory Manager Loading is failed.\n");
    EXPECT_TRUE(machine().procEntries().empty());
}

TEST_F(Module, LoadFailsWhenNoMajorNumberIsLeft)
{
    for (int major = 254; major > 0; --major)
        ASSERT_EQ(machine().registerDevice("other"), major);
    EXPECT_EQ(load("95000000-96000000"), -16);
}

TEST_F(Module, LoadFailsWithoutAProcEntryAndLeavesTheDeviceRegistered)
{
    machine().faults.refuseProcEntry = true;
    EXPECT_EQ(load("95000000-96000000"), -1);
    const auto messages = log();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[2], "\nCan't make a proc file!!!\n");
    EXPECT_EQ(machine().devices().size(), 1u);
}

TEST_F(Module, AMappingIsOfThePhysicalPageOfTheKernelAddress)
{
    sim::MapTarget target;
    EXPECT_EQ(map(0x95100000, 0x3000, false, target), 0);
    EXPECT_TRUE(target.mapped);
    EXPECT_EQ(target.pfn, 0x01100u); // physical 0x01100000
    EXPECT_EQ(target.bytes, 0x3000u);
    EXPECT_EQ(target.protection, MM_PROT_CACHED);
    EXPECT_EQ(pageOffset, 0x01100u);
    EXPECT_EQ(machine().cacheFlushes(), 1u);
}

TEST_F(Module, AMappingOfASynchronousDescriptorIsUncached)
{
    sim::MapTarget target;
    EXPECT_EQ(map(0x95100000, 0x1000, true, target), 0);
    EXPECT_EQ(target.protection, MM_PROT_UNCACHED);
}

TEST_F(Module, AMappingAtOrAboveTheLinearMapsEndIsUncached)
{
    machine().faults.everyPageIsRam = true;
    const struct {
        U32 offset, pfn;
        TMMProt protection;
    } cases[] = {
        {0xA3FFF000, 0xFFFF, MM_PROT_CACHED},
        {0xA4000000, 0x10000, MM_PROT_UNCACHED},
        {0x93FFF000, 0xFFFFF, MM_PROT_UNCACHED}, // below the linear map's start: the last physical page
    };
    for (const auto& c : cases) {
        sim::MapTarget target;
        EXPECT_EQ(map(c.offset, 0x1000, false, target), 0);
        EXPECT_EQ(target.pfn, c.pfn);
        EXPECT_EQ(target.protection, c.protection) << c.offset;
    }
}

TEST_F(Module, AnOffsetAbove32BitsWraps)
{
    sim::MapTarget target;
    TMMMapRequest request{0x195100, 0x20000000, 0x20001000, false, &target}; // 0x1_95100000 in pages
    EXPECT_EQ(Velmora_MM_mmap(&request), 0);
    EXPECT_EQ(target.pfn, 0x01100u);
}

TEST_F(Module, AnyPageOfRamCanBeMapped)
{
    sim::MapTarget target;
    EXPECT_EQ(map(0x94000000, 0x1000, false, target), 0);
    EXPECT_EQ(target.pfn, 0u);
    EXPECT_EQ(map(0xA3FFF000, 0x1000, false, target), 0);
    EXPECT_EQ(target.pfn, 0xFFFFu);
}

TEST_F(Module, AMappingOfAPageThatIsNotRamIsRefused)
{
    sim::MapTarget target;
    for (const U32 offset : {0xA4000000u, 0x93FFF000u, 0u, 0xFFFFF000u}) {
        EXPECT_EQ(map(offset, 0x1000, false, target), -5) << offset;
        EXPECT_EQ(pageOffset, offset >> 12); // not stored yet
    }
    EXPECT_FALSE(target.mapped);
    EXPECT_EQ(machine().cacheFlushes(), 0u);
    expectSilence();
}

TEST_F(Module, AMappingBeyondThe32BitPhysicalSpaceIsRefused)
{
    sim::MapTarget target;
    EXPECT_EQ(map(0x95100000, 0xFFFFF000, false, target), -22);
    EXPECT_EQ(pageOffset, 0x01100u); // stored before the check
    EXPECT_FALSE(target.mapped);
    EXPECT_EQ(machine().cacheFlushes(), 0u);
    expectSilence();
}

TEST_F(Module, AMappingMayEndWithTheLastPhysicalPage)
{
    sim::MapTarget target;
    EXPECT_EQ(map(0x95100000, 0xFEF00000, false, target), 0); // 0x1100 + 0xFEF00 pages
    EXPECT_EQ(target.bytes, 0xFEF00000u);
    EXPECT_EQ(map(0x95100000, 0xFEF00FFF, false, target), 0); // part of a page does not count
    EXPECT_EQ(map(0x95100000, 0xFEF01000, false, target), -22);
}

TEST_F(Module, ARefusedRemapAnswersTryAgain)
{
    machine().faults.refuseRemap = true;
    sim::MapTarget target;
    EXPECT_EQ(map(0x95100000, 0x1000, false, target), -11);
    EXPECT_EQ(machine().cacheFlushes(), 1u);
}

TEST_F(Module, PhysicalRangesAreValidUpToTheirBounds)
{
    EXPECT_EQ(valid_mmap_phys_addr_range(0xFFFFF, 0x1000), 1);
    EXPECT_EQ(valid_mmap_phys_addr_range(0xFFFFF, 0x1FFF), 1); // part of a page does not count
    EXPECT_EQ(valid_mmap_phys_addr_range(0xFFFFF, 0x2000), 0);
    EXPECT_EQ(valid_mmap_phys_addr_range(0x100000, 0), 1);
    EXPECT_EQ(valid_mmap_phys_addr_range(0x100001, 0), 0);
    EXPECT_EQ(valid_phys_addr_range(0x0FFFF000, 0x1000), 1);
    EXPECT_EQ(valid_phys_addr_range(0x0FFFF000, 0x1001), 0);
}

TEST_F(Module, TheProcFileHoldsTheCharacter1)
{
    char page[4] = {'x', 'x', 'x', 'x'};
    char* start = nullptr;
    S32 eof = 0;
    EXPECT_EQ(read_velmora_mm(page, &start, 7, 0, &eof, nullptr), 1); // offset and count are ignored by the entry
    EXPECT_EQ(std::string(page, 4), std::string("1\0xx", 4));
    EXPECT_EQ(eof, 1);
}

TEST_F(Module, TheProcFileIsReadTwiceFromItsStartAndIsEmptyBeyond)
{
    EXPECT_EQ(sim::readProcFile(0, 80), "1");
    EXPECT_EQ(sim::readProcFile(0, 1), "1");
    EXPECT_EQ(sim::readProcFile(1, 80), "");
    EXPECT_EQ(sim::readProcFile(0, 0), "");
}

} // namespace
} // namespace velmora::test
