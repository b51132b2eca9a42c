// The control device: file operations, the fifteen commands, their records and every way in which they fail.
#include "support/manager_fixture.h"

namespace velmora::test {
namespace {

constexpr U32 kRecord = sim::kScratch;
constexpr U32 kScratchEnd = sim::kScratch + sim::kScratchBytes;
const std::string kReadAccess = "Velmora_MM_ioctl: Read access to user parameter buffer is failed.\n";
const std::string kCopyFailed = "Velmora_MM_ioctl: From user buffer to kernel parameter copy is failed.\n";

class Device : public ManagerTest
{
protected:
    // Runs a command on a record in user memory and reads the record back.
    template <class Record> static S32 command(U32 number, Record& record)
    {
        std::memcpy(at(kRecord), &record, sizeof record);
        const S32 result = Velmora_MM_ioctl(number, kRecord);
        std::memcpy(&record, at(kRecord), sizeof record);
        return result;
    }

    static S32 allocate(U32 handle, U32 bytes, U8 owner, U32* address)
    {
        TMallocInfo info{handle, bytes, owner, {}, 0x11223344};
        const S32 result = command(MM_CMD_MALLOC, info);
        *address = info.pubStart;
        return result;
    }
};

TEST_F(Device, OpenAndReleaseDoNothing)
{
    EXPECT_EQ(Velmora_MM_open(), 0);
    EXPECT_EQ(Velmora_MM_release(), 0);
    expectSilence();
}

TEST_F(Device, ReadAndWriteAreRefused)
{
    EXPECT_EQ(Velmora_MM_read(), -38);
    EXPECT_EQ(Velmora_MM_write(), -38);
}

TEST_F(Device, UnknownCommandsSucceedSilentlyAndReadNothing)
{
    for (const U32 number : {0x52FFu, 0x53FFu, 0u, 0xFFFFFFFFu}) {
        EXPECT_EQ(Velmora_MM_ioctl(number, 0xFFFFFFFF), 0) << number;
        expectSilence();
    }
}

// Every command checks exactly the bytes of its own record.
struct RecordSize {
    U32 command;
    U32 bytes;
};
constexpr RecordSize kRecordSizes[] = {{MM_CMD_LIB_ENTRY, 8},
                                       {MM_CMD_CREATE_SEGMENT, 28},
                                       {MM_CMD_MALLOC, 16},
                                       {MM_CMD_FREE, 12},
                                       {MM_CMD_MEMSET, 12},
                                       {MM_CMD_DELETE_SEGMENT, 5},
                                       {MM_CMD_ADD_SEGMENT, 16},
                                       {MM_CMD_CLEAR_SEGMENT, 16},
                                       {MM_CMD_ENTRY, 4},
                                       {MM_CMD_COLLECT_GARBAGE, 8},
                                       {MM_CMD_CHECK_SEGMENT, 12},
                                       {MM_CMD_DISPLAY_MST, 8},
                                       {MM_CMD_QUERY_PHYS_ADDR, 12},
                                       {MM_CMD_GET_MST, 88},
                                       {MM_CMD_GET_MCT, 20}};
// Commands that copy their record back; the others leave the caller's memory alone.
constexpr U32 kCopiedBack[] = {MM_CMD_LIB_ENTRY,       MM_CMD_CREATE_SEGMENT, MM_CMD_MALLOC,
                               MM_CMD_DELETE_SEGMENT,  MM_CMD_CHECK_SEGMENT,  MM_CMD_DISPLAY_MST,
                               MM_CMD_QUERY_PHYS_ADDR, MM_CMD_GET_MST,        MM_CMD_GET_MCT};

TEST_F(Device, ARecordThatEndsAboveTheAddressLimitIsRefused)
{
    for (const auto& [number, bytes] : kRecordSizes) {
        EXPECT_EQ(Velmora_MM_ioctl(number, sim::kUserLimit - bytes + 1), -22) << number;
        EXPECT_EQ(log(), std::vector{kReadAccess});
    }
}

TEST_F(Device, ARecordThatWrapsIsRefused)
{
    EXPECT_EQ(Velmora_MM_ioctl(MM_CMD_LIB_ENTRY, 0xFFFFFFF8), -22);
    EXPECT_EQ(log(), std::vector{kReadAccess});
    EXPECT_EQ(Velmora_MM_ioctl(MM_CMD_ENTRY, 0xFFFFFFFF), -22);
}

TEST_F(Device, ARecordThatEndsAtTheAddressLimitIsReadAndFaults)
{
    for (const auto& [number, bytes] : kRecordSizes) {
        EXPECT_EQ(Velmora_MM_ioctl(number, sim::kUserLimit - bytes), -14) << number;
        EXPECT_EQ(log(), std::vector{kCopyFailed});
    }
}

TEST_F(Device, ARecordThatReachesOneByteIntoAnUnmappedPageIsRefused)
{
    for (const auto& [number, bytes] : kRecordSizes) {
        EXPECT_EQ(Velmora_MM_ioctl(number, kScratchEnd - bytes + 1), -14) << number;
        EXPECT_EQ(log(), std::vector{kCopyFailed});
    }
}

TEST_F(Device, ARecordAtTheLastBytesOfAPageIsAccepted)
{
    start();
    const TMallocInfo info{99, 1, 0, {}, 0};
    std::memcpy(at(kScratchEnd - sizeof info), &info, sizeof info);
    EXPECT_EQ(Velmora_MM_ioctl(MM_CMD_MALLOC, kScratchEnd - sizeof info), EASSERT);
}

TEST_F(Device, EveryRecordMayEndWithTheLastByteOfAPage)
{
    for (const auto& [number, bytes] : kRecordSizes) {
        start();
        std::memset(at(kScratchEnd - 88), 0, 88);
        EXPECT_GE(Velmora_MM_ioctl(number, kScratchEnd - bytes), 0) << number;
        powerOn();
    }
}

TEST_F(Device, ACopyInThatStopsPartWayRunsNothing)
{
    start();
    machine().faults.copyInStopsAt = 4;
    TLibEntryInfo info{SM_FM_MBR_OK, 7};
    EXPECT_EQ(command(MM_CMD_LIB_ENTRY, info), -14);
    EXPECT_EQ(log(), std::vector{kCopyFailed}); // no report of the refused option: the library was not started
}

TEST_F(Device, ACopyBackThatStopsPartWayLeavesWhatTheCommandDid)
{
    start();
    const U32 handle = createBlocks("BLK0", 0x10000, 0x1000);
    machine().faults.copyOutStopsAt = 12;
    TMallocInfo info{handle, 1, 0, {}, 0x55667788};
    EXPECT_EQ(command(MM_CMD_MALLOC, info), -14);
    EXPECT_EQ(log(), std::vector{kCopyFailed});
    EXPECT_EQ(info.pubStart, 0x55667788u);     // bytes 12 to 15 were not copied
    EXPECT_EQ(MM_GetTotAvailBlk(handle), 15u); // and the allocation stands
}

// A copy of which the last byte is missing shows which commands make one, and that it is of the whole record.
TEST_F(Device, NineRecordsAreCopiedBackWhole)
{
    for (const auto& [number, bytes] : kRecordSizes) {
        start();
        machine().faults.copyOutStopsAt = bytes - 1;
        const bool copied = std::ranges::count(kCopiedBack, number) == 1;
        const S32 result = Velmora_MM_ioctl(number, kRecord);
        const Lines messages = log();
        EXPECT_EQ(result == -14, copied) << number;
        EXPECT_EQ(!messages.empty() && messages.back() == kCopyFailed, copied) << number;
        powerOn();
    }
}

TEST_F(Device, EntryAndLibEntryStartTheManager)
{
    ASSERT_EQ(load(), 0);
    machine().takeLog();
    TMMInitOption option = MM_CONSTRUCT_DEFAULT_MCT;
    EXPECT_EQ(command(MM_CMD_ENTRY, option), 0);
    TLibEntryInfo info{SM_BKUP_OK, -1};
    EXPECT_EQ(command(MM_CMD_LIB_ENTRY, info), 0);
    EXPECT_EQ(info.status, 0);
    EXPECT_EQ(MM_Addr(pstSegBlkHead), kFloatStart);
    expectSilence();
}

TEST_F(Device, EntryWithAnotherOptionIsRefused)
{
    start();
    TMMInitOption option = 1;
    EXPECT_EQ(command(MM_CMD_ENTRY, option), EASSERT);
    EXPECT_EQ(log(), std::vector{check("0 && \"Inpropriate Option Value!!\"", "mm/MM_Lib", "MM_Entry")});
}

TEST_F(Device, LibEntryWritesItsResultIntoTheRecord)
{
    start();
    TLibEntryInfo info{SM_FM_MBR_NG, 0};
    EXPECT_EQ(command(MM_CMD_LIB_ENTRY, info), EASSERT);
    EXPECT_EQ(info.status, EASSERT);
    EXPECT_EQ(info.enStartOption, U32(SM_FM_MBR_NG));
}

TEST_F(Device, CreateSegmentGivesTheRequestBackFilledIn)
{
    start();
    TSegInfoFromApp info = request("RIP0", 0x100000, 0x1000);
    info.ubMap = 8;
    info.ubVM = 1;
    info.aubPad[0] = 0xBE;
    info.aubPad[2] = 0xEF;
    EXPECT_EQ(command(MM_CMD_CREATE_SEGMENT, info), 0);
    EXPECT_EQ(info.hulHandle, 5u);
    EXPECT_EQ(info.ulSegSize, 0x100000u);
    EXPECT_EQ(info.ulRetSegSize, 0xFF000u);
    EXPECT_EQ(info.aubPad[0], 0xBE);
    EXPECT_EQ(info.aubPad[2], 0xEF);
}

TEST_F(Device, CreateSegmentThatFailsGivesTheRequestBackUntouched)
{
    start();
    TSegInfoFromApp info = request("RIP0", 0x100000, 0);
    info.hulHandle = 0x12345678;
    const TSegInfoFromApp before = info;
    EXPECT_EQ(command(MM_CMD_CREATE_SEGMENT, info), EASSERT);
    EXPECT_EQ(std::memcmp(&info, &before, sizeof info), 0);
}

TEST_F(Device, MallocWritesTheAddressAndKeepsThePadding)
{
    start();
    const U32 handle = createBlocks("BLK0", 0x10000, 0x1000);
    TMallocInfo info{handle, 4097, 0, {0xAA, 0xBB, 0xCC}, 0};
    EXPECT_EQ(command(MM_CMD_MALLOC, info), 0);
    EXPECT_EQ(info.pubStart, MM_Addr(stSegTable[handle].pubEndAddr) - 0x2000);
    EXPECT_EQ(info.aubPad[0], 0xAA);
    EXPECT_EQ(info.aubPad[2], 0xCC);
}

TEST_F(Device, MallocOnAFullSegmentWithoutOverflowAnswers4AndWrites0)
{
    start();
    const U32 handle = createBlocks("BLK0", 0x10000, 0x1000);
    U32 address = 0;
    ASSERT_EQ(allocate(handle, MM_GetTotAvailBlk(handle) * 0x1000, 0, &address), 0);
    EXPECT_EQ(allocate(handle, 1, 0, &address), EINVASEGSIZE);
    EXPECT_EQ(address, 0u);
}

TEST_F(Device, MallocAfterAFailedCheckAnswers14AndWritesAllOnes)
{
    start();
    U32 address = 0;
    EXPECT_EQ(allocate(50, 1, 0, &address), EASSERT);
    EXPECT_EQ(address, 0xFFFFFFFFu);
}

TEST_F(Device, FreeReleasesAndAnswersTheManagersCode)
{
    start();
    const U32 handle = createBlocks("BLK0", 0x10000, 0x1000);
    U32 address = 0;
    ASSERT_EQ(allocate(handle, 0x3000, 0, &address), 0);
    TFreeInfo info{handle, address, 0x3000};
    EXPECT_EQ(command(MM_CMD_FREE, info), 0);
    EXPECT_EQ(MM_GetTotAvailBlk(handle), 16u);
    info.pubRlsAddr = 0;
    EXPECT_EQ(command(MM_CMD_FREE, info), EASSERT);
}

TEST_F(Device, MemsetFillsWithTheLowByteAndPrintsTheEmptyMessage)
{
    start();
    TMemsetInfo info{kFloatStart + 1, 0x1FF, 5};
    EXPECT_EQ(command(MM_CMD_MEMSET, info), 0);
    EXPECT_EQ(log(), std::vector<std::string>{""});
    EXPECT_TRUE(isFilled(kFloatStart + 1, 0xFF, 5));
    EXPECT_TRUE(isFilled(kFloatStart + 6, 0, 1));
}

TEST_F(Device, MemsetOfNothingWritesNothingAndPrintsTheEmptyMessage)
{
    start();
    TMemsetInfo info{0, 0x55, 0};
    EXPECT_EQ(command(MM_CMD_MEMSET, info), 0);
    EXPECT_EQ(log(), std::vector<std::string>{""});
}

TEST_F(Device, MemsetTrustsItsAddress)
{
    start();
    const TMemsetInfo info{0xA3FFFFFF, 1, 2};
    std::memcpy(at(kRecord), &info, sizeof info);
    const Outcome end = machine().run([] { return static_cast<U32>(Velmora_MM_ioctl(MM_CMD_MEMSET, kRecord)); });
    EXPECT_EQ(end.kind, Outcome::Kind::Oops);
    EXPECT_EQ(end.address, 0xA4000000u);
}

TEST_F(Device, DeleteSegmentEmptiesTheRowAndKeepsTheCallersStatusByte)
{
    start();
    TDeleteSegmentInfo info{{'$', 'F', 'I', 'L'}, 0x77};
    EXPECT_EQ(command(MM_CMD_DELETE_SEGMENT, info), 0);
    EXPECT_EQ(info.status, 0x77);
    EXPECT_EQ(stDefaultMCTTable[4].ulSize, 0u);
    expectSilence();
}

TEST_F(Device, DeleteSegmentOfAnUnknownNameAnswers0)
{
    start();
    TDeleteSegmentInfo info{{'N', 'O', 'N', 'E'}, 0x77};
    EXPECT_EQ(command(MM_CMD_DELETE_SEGMENT, info), 0);
    EXPECT_EQ(info.status, 0x77);
    EXPECT_EQ(log(), std::vector{check("(ubResult == TRUE) && \"Can't find such SegmentID\"", "mm/MM_MCT",
                                       "MM_DeleteSegment")});
}

TEST_F(Device, AddSegmentIsAcceptedAndDoesNothing)
{
    start();
    const std::vector<TMCTInfo> before(stDefaultMCTTable, stDefaultMCTTable + MAX_MCT_NUM);
    TAddSegmentInfo info{{'N', 'E', 'W', '0'}, 8192, kFloatStart, 0x77, {}};
    EXPECT_EQ(command(MM_CMD_ADD_SEGMENT, info), 0);
    EXPECT_EQ(std::memcmp(before.data(), stDefaultMCTTable, sizeof stDefaultMCTTable), 0);
    EXPECT_EQ(info.status, 0x77);
    expectSilence();
}

TEST_F(Device, ClearSegmentZeroesTheNamedMemoryAndAlwaysAnswers0)
{
    start();
    fill(kAreaStart, 0x5A, kFixedBytes);
    TClearSegmentInfo info{{'$', 'J', 'C', 'B'}, 0, 0, 0x77, {}};
    EXPECT_EQ(command(MM_CMD_CLEAR_SEGMENT, info), 0);
    EXPECT_TRUE(isFilled(kAreaStart + 8192, 0, 65536));
    EXPECT_TRUE(isFilled(kAreaStart, 0x5A, 8192));
    EXPECT_TRUE(isFilled(kAreaStart + 73728, 0x5A, kFixedBytes - 73728));
    info = {{'N', 'O', 'N', 'E'}, 0, 0, 0, {}};
    EXPECT_EQ(command(MM_CMD_CLEAR_SEGMENT, info), 0);
    expectSilence();
}

TEST_F(Device, CollectGarbageReleasesTheOwnersBlocks)
{
    start();
    const U32 handle = createBlocks("BLK0", 0x10000, 0x1000, 8);
    const U32 free = MM_GetTotAvailBlk(handle);
    U32 address = 0;
    ASSERT_EQ(allocate(handle, 0x2000, 7, &address), 0);
    ASSERT_EQ(allocate(handle, 0x1000, 8, &address), 0);
    TCollectGarbageInfo info{handle, 7, {0xAA, 0xBB, 0xCC}};
    EXPECT_EQ(command(MM_CMD_COLLECT_GARBAGE, info), 0);
    EXPECT_EQ(MM_GetTotAvailBlk(handle), free - 1);
    info.hulHandle = 50;
    EXPECT_EQ(command(MM_CMD_COLLECT_GARBAGE, info), EASSERT);
}

TEST_F(Device, CheckSegmentCountsTheEndAddressAsInside)
{
    start();
    const U32 handle = createBlocks("BLK0", 0x10000, 0x1000);
    const U32 start = MM_Addr(stSegTable[handle].pubStartAddr);
    const U32 end = MM_Addr(stSegTable[handle].pubEndAddr);
    for (const auto& [address, inside] : {std::pair{start - 1, 0}, {start, 1}, {end, 1}, {end + 1, 0}}) {
        TCheckSegmentInfo info{handle, address, 0xFF, {}};
        EXPECT_EQ(command(MM_CMD_CHECK_SEGMENT, info), 0);
        EXPECT_EQ(info.status, inside) << address;
    }
}

TEST_F(Device, DisplayTakesTheLowByteOfTheHandleAndWritesStatus0)
{
    start();
    createBlocks("BLK0", 0x10000, 0x1000);
    MM_DisplayMST(1);
    const auto expected = log();
    TDisplayMSTInfo info{0x101, 0xFF, {}};
    EXPECT_EQ(command(MM_CMD_DISPLAY_MST, info), 0);
    EXPECT_EQ(info.status, 0);
    EXPECT_EQ(info.hulHandle, 0x101u);
    EXPECT_EQ(log(), expected);
    EXPECT_EQ(expected.size(), 5u);
}

TEST_F(Device, QueryPhysAddrSubtractsTheLinearMapsStart)
{
    start();
    TQueryPhysAddrInfo info{0x31, {}, 0x94100000, 0};
    EXPECT_EQ(command(MM_CMD_QUERY_PHYS_ADDR, info), 0);
    EXPECT_EQ(info.ulPhysAddr, 0x100000u);
}

TEST_F(Device, QueryPhysAddrOf0Answers14AndWrites14)
{
    start();
    TQueryPhysAddrInfo info{0, {}, 0, 0};
    EXPECT_EQ(command(MM_CMD_QUERY_PHYS_ADDR, info), EASSERT);
    EXPECT_EQ(info.ulPhysAddr, 14u);
    EXPECT_EQ(log(), std::vector{check("ulStart", "mm/MM_Lib", "MM_GetPhysAddr")});
}

TEST_F(Device, QueryPhysAddrThatComesTo14Answers14)
{
    start();
    TQueryPhysAddrInfo info{0, {}, 0x9400000E, 0}; // a physical address of 14 looks like the failure: settled
    EXPECT_EQ(command(MM_CMD_QUERY_PHYS_ADDR, info), EASSERT);
    EXPECT_EQ(info.ulPhysAddr, 14u);
    expectSilence();
}

TEST_F(Device, GetMSTCopiesTheWholeEntry)
{
    start();
    const U32 handle = createBlocks("BLK0", 0x10000, 0x1000, 4);
    TGetMSTInfo info{};
    info.hubHandle = static_cast<U8>(handle);
    info.aubPad[1] = 0xAA;
    info.status = 0x55;
    EXPECT_EQ(command(MM_CMD_GET_MST, info), 0);
    EXPECT_EQ(info.status, 0);
    EXPECT_EQ(info.aubPad[1], 0xAA);
    EXPECT_EQ(std::memcmp(&info.SegTable, &stSegTable[handle], 80), 0);
}

TEST_F(Device, GetMSTRefusesTheHeapAndBeyond)
{
    start();
    for (const int index : {49, 50, 255}) {
        TGetMSTInfo info{};
        info.hubHandle = static_cast<U8>(index);
        info.SegTable.ulSemID = 0x12345678;
        EXPECT_EQ(command(MM_CMD_GET_MST, info), 0);
        EXPECT_EQ(info.status, 255);
        EXPECT_EQ(info.SegTable.ulSemID, 0x12345678u); // nothing was written
    }
}

TEST_F(Device, GetMCTCopiesADefaultRow)
{
    start();
    TGetMCTInfo info{};
    info.cfgid = 4;
    EXPECT_EQ(command(MM_CMD_GET_MCT, info), 0);
    EXPECT_EQ(info.status, 0);
    EXPECT_EQ(std::memcmp(info.SegTable.aubCFGID, "$FIL", 4), 0);
    EXPECT_EQ(info.SegTable.ulSize, 1048576u);
    EXPECT_EQ(info.SegTable.pubStartAddr, kAreaStart + 1122304);
}

TEST_F(Device, GetMCTRefusesRowsAbove4)
{
    start();
    for (const U8 row : {5, 255}) {
        TGetMCTInfo info;
        std::memset(&info, 0xA5, sizeof info);
        info.cfgid = row;
        EXPECT_EQ(command(MM_CMD_GET_MCT, info), 0);
        EXPECT_EQ(info.status, 255);
        EXPECT_TRUE(isFilled(MM_Addr(&info.SegTable), 0xA5, sizeof info.SegTable)); // nothing was written
    }
    expectSilence();
}

} // namespace
} // namespace velmora::test
