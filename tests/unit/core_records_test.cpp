// Records that cross the boundary, constants, and the vocabulary that every unit shares.
#include "support/manager_fixture.h"

namespace velmora::test {
namespace {

class Records : public ManagerTest
{
};

// Constants -------------------------------------------------------------------------------------------

TEST_F(Records, ErrorCodesHaveTheirValues)
{
    const int codes[] = {ENOERR,      EINVAOPT,     EOUTOFRANGE, EWRONGADDR, EINVASEGSIZE, EOUTOFFIXED,
                         EOUTOFFLOAT, EINVASEGTYPE, ENOSEGLIST,  ENOMCT,     EERR,         ENOSEGBLOCK,
                         ENOSEGBLK,   ENOSIZE,      EASSERT,     EINITSEM,   EFREESEM,     EPSEM,
                         EVSEM,       EOPEN,        ECLOSE,      ENULL,      ESEGMENT,     EINVAARG};
    static_assert(std::size(codes) == 24);
    for (int i = 0; i < 24; ++i)
        EXPECT_EQ(codes[i], i);
}

TEST_F(Records, ConstantsHaveTheirValues)
{
    const struct {
        const char* name;
        U32 value, expected;
    } constants[] = {
        {"SM_BKUP_OK", SM_BKUP_OK, 0},
        {"SM_BKUP_NG", SM_BKUP_NG, 1},
        {"SM_AJL_CLR", SM_AJL_CLR, 2},
        {"SM_BKUP_FLASH", SM_BKUP_FLASH, 3},
        {"SM_FM_MBR_OK", SM_FM_MBR_OK, 4},
        {"SM_FM_MBR_NG", SM_FM_MBR_NG, 5},
        {"MM_CONSTRUCT_DEFAULT_MCT", MM_CONSTRUCT_DEFAULT_MCT, 0},
        {"MAX_SEGTABLE_SIZE", MAX_SEGTABLE_SIZE, 50},
        {"MAX_FIXEDSEG_NUM", MAX_FIXEDSEG_NUM, 5},
        {"FIRST_FLOAT_HANDLE", FIRST_FLOAT_HANDLE, 5},
        {"HEAPHANDLE", HEAPHANDLE, 49},
        {"HEAPHANDLE_ALIAS", HEAPHANDLE_ALIAS, 65585},
        {"MAX_PIECE_NUM", MAX_PIECE_NUM, 5},
        {"HEAP_BLOCK_SIZE", HEAP_BLOCK_SIZE, 64},
        {"MAX_MCT_NUM", MAX_MCT_NUM, 5},
        {"FIXED", FIXED, 0},
        {"FLOAT", FLOAT, 1},
        {"FLOATALIGN", FLOATALIGN, 2},
        {"STACK", STACK, 0},
        {"LINKEDLIST", LINKEDLIST, 1},
        {"NO", NO, 0},
        {"YES", YES, 1},
        {"TRUE", TRUE, 1},
        {"FALSE", FALSE, 0},
    };
    for (const auto& constant : constants)
        EXPECT_EQ(constant.value, constant.expected) << constant.name;
}

TEST_F(Records, ControlCommandsAreNumberedFrom0x5300)
{
    const U32 commands[] = {MM_CMD_LIB_ENTRY,       MM_CMD_CREATE_SEGMENT,  MM_CMD_MALLOC,        MM_CMD_FREE,
                            MM_CMD_MEMSET,          MM_CMD_DELETE_SEGMENT,  MM_CMD_ADD_SEGMENT,   MM_CMD_CLEAR_SEGMENT,
                            MM_CMD_ENTRY,           MM_CMD_COLLECT_GARBAGE, MM_CMD_CHECK_SEGMENT, MM_CMD_DISPLAY_MST,
                            MM_CMD_QUERY_PHYS_ADDR, MM_CMD_GET_MST,         MM_CMD_GET_MCT};
    static_assert(std::size(commands) == 15);
    for (U32 i = 0; i < 15; ++i)
        EXPECT_EQ(commands[i], 0x5300 + i);
}

TEST_F(Records, ScalarsHaveTheirWidthAndSign)
{
    EXPECT_EQ(sizeof(U8), 1u);
    EXPECT_EQ(sizeof(U16), 2u);
    EXPECT_EQ(sizeof(U32), 4u);
    EXPECT_EQ(sizeof(S32), 4u);
    EXPECT_EQ(sizeof(BOOL), 4u);
    EXPECT_GT(static_cast<U8>(-1), 0);
    EXPECT_GT(static_cast<U16>(-1), 0);
    EXPECT_GT(static_cast<U32>(-1), 0u);
    EXPECT_LT(static_cast<S32>(-1), 0);
    EXPECT_LT(static_cast<BOOL>(-1), 0);
}

TEST_F(Records, BeforeALoadTheTablesAreEmptyAndFloatHandlesBeginAt5)
{
    EXPECT_EQ(hulFixedHandle, 0u);
    EXPECT_EQ(hulFloatHandle, 5u);
    EXPECT_EQ(ulRunningMultiJob, 0u);
    EXPECT_EQ(sizeof stSegTable, 50u * 80);
    EXPECT_TRUE(isFilled(MM_Addr(stSegTable), 0, sizeof stSegTable));
    EXPECT_EQ(pstSegBlkHead, nullptr);
    EXPECT_EQ(pstSegBlkTail, nullptr);
    for (const TMCTInfo* row : pstMCTTable)
        EXPECT_EQ(row, nullptr);
    EXPECT_EQ(ulFixedSegEndAddress, 0u);
    EXPECT_EQ(ulMCTStartAddr, 0u);
}

// Layouts: every byte of a record holds its own offset, so a little-endian field of four bytes at offset n reads as
// n, n + 1, n + 2, n + 3 from its low byte up. ----------------------------------------------------------

template <class T> T countingRecord()
{
    U8 bytes[sizeof(T)];
    for (U32 i = 0; i < sizeof bytes; ++i)
        bytes[i] = static_cast<U8>(i);
    T record;
    std::memcpy(&record, bytes, sizeof record);
    return record;
}

constexpr U32 word(U32 offset)
{
    return offset | (offset + 1) << 8 | (offset + 2) << 16 | (offset + 3) << 24;
}

template <class T> U32 word(T* pointer)
{
    return reinterpret_cast<U32>(pointer);
}

void expectRequestLayout(const TSegInfoFromApp& info)
{
    EXPECT_EQ(info.aubSegID[0], 0);
    EXPECT_EQ(info.aubSegID[3], 3);
    EXPECT_EQ(info.ubType, 4);
    EXPECT_EQ(info.ubSegDSType, 5);
    EXPECT_EQ(info.ubMap, 6);
    EXPECT_EQ(info.ubSemaphore, 7);
    EXPECT_EQ(info.ulSegSize, word(8));
    EXPECT_EQ(info.ulBlkSize, word(12));
    EXPECT_EQ(info.hulHandle, word(16));
    EXPECT_EQ(info.ulRetSegSize, word(20));
    EXPECT_EQ(info.ubVM, 24);
}

TEST_F(Records, ARequestHas28Bytes)
{
    EXPECT_EQ(sizeof(TSegInfoFromApp), 28u);
    expectRequestLayout(countingRecord<TSegInfoFromApp>());
}

TEST_F(Records, ASegmentTableEntryHas80Bytes)
{
    EXPECT_EQ(sizeof(TMMSegInfo), 80u);
    const auto entry = countingRecord<TMMSegInfo>();
    expectRequestLayout(entry.stInfoFromApp);
    EXPECT_EQ(entry.ubBlkBit, 28);
    EXPECT_EQ(word(entry.pubStartAddr), word(32));
    EXPECT_EQ(word(entry.pubEndAddr), word(36));
    EXPECT_EQ(word(entry.pubMapStartAddr), word(40));
    EXPECT_EQ(word(entry.pubMapEndAddr), word(44));
    EXPECT_EQ(entry.ulSemID, word(48));
    EXPECT_EQ(entry.ulTotalBlkNum, word(52));
    EXPECT_EQ(entry.ulTotalAllocBlkNum, word(56));
    EXPECT_EQ(entry.ulTotalFreeBlkNum, word(60));
    EXPECT_EQ(entry.ulLargestBlkSize, word(64));
    EXPECT_EQ(entry.ulRealAvailSize, word(68));
    EXPECT_EQ(word(entry.pfnAlloc), word(72));
    EXPECT_EQ(word(entry.pfnFree), word(76));
}

TEST_F(Records, AnEntryOnTheWireIsTheEntryInTheTable)
{
    EXPECT_EQ(sizeof(TMMSegInfoWire), 80u);
    const auto entry = countingRecord<TMMSegInfoWire>();
    expectRequestLayout(entry.stInfoFromApp);
    EXPECT_EQ(entry.ubBlkBit, 28);
    EXPECT_EQ(entry.pubStartAddr, word(32));
    EXPECT_EQ(entry.pubEndAddr, word(36));
    EXPECT_EQ(entry.pubMapStartAddr, word(40));
    EXPECT_EQ(entry.pubMapEndAddr, word(44));
    EXPECT_EQ(entry.ulSemID, word(48));
    EXPECT_EQ(entry.ulTotalBlkNum, word(52));
    EXPECT_EQ(entry.ulTotalAllocBlkNum, word(56));
    EXPECT_EQ(entry.ulTotalFreeBlkNum, word(60));
    EXPECT_EQ(entry.ulLargestBlkSize, word(64));
    EXPECT_EQ(entry.ulRealAvailSize, word(68));
    EXPECT_EQ(entry.pfnAlloc, word(72));
    EXPECT_EQ(entry.pfnFree, word(76));
}

TEST_F(Records, ConfigurationRowsHave12Bytes)
{
    EXPECT_EQ(sizeof(TMCTInfo), 12u);
    const auto row = countingRecord<TMCTInfo>();
    EXPECT_EQ(row.aubCFGID[0], 0);
    EXPECT_EQ(row.aubCFGID[3], 3);
    EXPECT_EQ(row.ulSize, word(4));
    EXPECT_EQ(word(row.pubStartAddr), word(8));

    EXPECT_EQ(sizeof(TMCTInfoWire), 12u);
    const auto wire = countingRecord<TMCTInfoWire>();
    EXPECT_EQ(wire.aubCFGID[3], 3);
    EXPECT_EQ(wire.ulSize, word(4));
    EXPECT_EQ(wire.pubStartAddr, word(8));
}

TEST_F(Records, SummariesAndRangesHave16Bytes)
{
    EXPECT_EQ(sizeof(TMSTInfo), 16u);
    const auto summary = countingRecord<TMSTInfo>();
    EXPECT_EQ(summary.ulBlkSize, word(0));
    EXPECT_EQ(summary.ulTotalSegsize, word(4));
    EXPECT_EQ(word(summary.pubStartSegAddr), word(8));
    EXPECT_EQ(word(summary.pubEndSegAddr), word(12));

    EXPECT_EQ(sizeof(TSegRange), 16u);
    const auto range = countingRecord<TSegRange>();
    EXPECT_EQ(word(range.pubStartAddr), word(0));
    EXPECT_EQ(word(range.pubEndAddr), word(4));
    EXPECT_EQ(range.ulMCTIDX, word(8));
    EXPECT_EQ(range.ulRetSegSize, word(12));
}

TEST_F(Records, AFreeNodeHas64BytesWithItsHeaderFirst)
{
    EXPECT_EQ(sizeof(TMMBlkStr), 64u);
    const auto free = countingRecord<TMMBlkStr>();
    EXPECT_EQ(word(free.pstNext), word(0));
    EXPECT_EQ(word(free.pstBack), word(4));
    EXPECT_EQ(free.ulSize, word(8));
    EXPECT_EQ(free.aubdata[0], 12);
    EXPECT_EQ(sizeof free.aubdata, 52u);
}

TEST_F(Records, AStackHasItsTailBeforeItsHead)
{
    EXPECT_EQ(sizeof(TStackStr), 8u);
    const auto stack = countingRecord<TStackStr>();
    EXPECT_EQ(word(stack.pubStackTail), word(0));
    EXPECT_EQ(word(stack.pubStackHead), word(4));
    EXPECT_EQ(sizeof(THeapAddrRange), 20u);
}

TEST_F(Records, OnePointerIsSeenFiveWays)
{
    EXPECT_EQ(sizeof(TMMBcptr), 4u);
    TMMBcptr pointer;
    pointer.ulyisl = 0x95312040;
    TMMBcptr copy;
    std::memcpy(&copy, &pointer, sizeof copy);
    EXPECT_EQ(word(copy.pstBlk), 0x95312040u);
    EXPECT_EQ(word(copy.pubyiscp), 0x95312040u);
    EXPECT_EQ(word(copy.puwyisp), 0x95312040u);
    EXPECT_EQ(copy.auwyisi[0], 0x2040);
    EXPECT_EQ(copy.auwyisi[1], 0x9531);
}

TEST_F(Records, CommandRecordsHaveTheirSizes)
{
    const struct {
        const char* name;
        size_t size, expected;
    } records[] = {
        {"TLibEntryInfo", sizeof(TLibEntryInfo), 8},
        {"TMallocInfo", sizeof(TMallocInfo), 16},
        {"TFreeInfo", sizeof(TFreeInfo), 12},
        {"TMemsetInfo", sizeof(TMemsetInfo), 12},
        {"TDeleteSegmentInfo", sizeof(TDeleteSegmentInfo), 5},
        {"TAddSegmentInfo", sizeof(TAddSegmentInfo), 16},
        {"TClearSegmentInfo", sizeof(TClearSegmentInfo), 16},
        {"TMMInitOption", sizeof(TMMInitOption), 4},
        {"TStartOption", sizeof(TStartOption), 4},
        {"TCollectGarbageInfo", sizeof(TCollectGarbageInfo), 8},
        {"TCheckSegmentInfo", sizeof(TCheckSegmentInfo), 12},
        {"TDisplayMSTInfo", sizeof(TDisplayMSTInfo), 8},
        {"TQueryPhysAddrInfo", sizeof(TQueryPhysAddrInfo), 12},
        {"TGetMSTInfo", sizeof(TGetMSTInfo), 88},
        {"TGetMCTInfo", sizeof(TGetMCTInfo), 20},
    };
    for (const auto& record : records)
        EXPECT_EQ(record.size, record.expected) << record.name;
}

TEST_F(Records, CommandRecordsHaveTheirFieldsInPlace)
{
    const auto start = countingRecord<TLibEntryInfo>();
    EXPECT_EQ(start.enStartOption, word(0));
    EXPECT_EQ(U32(start.status), word(4));

    const auto allocation = countingRecord<TMallocInfo>();
    EXPECT_EQ(allocation.hulHandle, word(0));
    EXPECT_EQ(allocation.ulReqBytes, word(4));
    EXPECT_EQ(allocation.ubMapID, 8);
    EXPECT_EQ(allocation.pubStart, word(12));

    const auto release = countingRecord<TFreeInfo>();
    EXPECT_EQ(release.hulHandle, word(0));
    EXPECT_EQ(release.pubRlsAddr, word(4));
    EXPECT_EQ(release.ulBytesNo, word(8));

    const auto filling = countingRecord<TMemsetInfo>();
    EXPECT_EQ(filling.s, word(0));
    EXPECT_EQ(U32(filling.c), word(4));
    EXPECT_EQ(filling.n, word(8));

    const auto emptying = countingRecord<TDeleteSegmentInfo>();
    EXPECT_EQ(emptying.aubCFGID[0], 0);
    EXPECT_EQ(emptying.aubCFGID[3], 3);
    EXPECT_EQ(emptying.status, 4);

    const auto adding = countingRecord<TAddSegmentInfo>();
    EXPECT_EQ(adding.aubCFGID[3], 3);
    EXPECT_EQ(adding.ulSize, word(4));
    EXPECT_EQ(adding.pubAddr, word(8));
    EXPECT_EQ(adding.status, 12);

    const auto clearing = countingRecord<TClearSegmentInfo>();
    EXPECT_EQ(clearing.ulSize, word(4));
    EXPECT_EQ(clearing.pubAddr, word(8));
    EXPECT_EQ(clearing.status, 12);

    const auto garbage = countingRecord<TCollectGarbageInfo>();
    EXPECT_EQ(garbage.hulHandle, word(0));
    EXPECT_EQ(garbage.ubMapID, 4);

    const auto inside = countingRecord<TCheckSegmentInfo>();
    EXPECT_EQ(inside.hulHandle, word(0));
    EXPECT_EQ(inside.ulAddr, word(4));
    EXPECT_EQ(inside.status, 8);

    const auto display = countingRecord<TDisplayMSTInfo>();
    EXPECT_EQ(display.hulHandle, word(0));
    EXPECT_EQ(display.status, 4);

    const auto physical = countingRecord<TQueryPhysAddrInfo>();
    EXPECT_EQ(physical.hubHandle, 0);
    EXPECT_EQ(physical.ulStart, word(4));
    EXPECT_EQ(physical.ulPhysAddr, word(8));

    const auto segment = countingRecord<TGetMSTInfo>();
    EXPECT_EQ(segment.hubHandle, 0);
    EXPECT_EQ(segment.SegTable.stInfoFromApp.aubSegID[0], 4);
    EXPECT_EQ(segment.SegTable.pfnFree, word(80));
    EXPECT_EQ(segment.status, 84);

    const auto row = countingRecord<TGetMCTInfo>();
    EXPECT_EQ(row.cfgid, 0);
    EXPECT_EQ(row.SegTable.aubCFGID[0], 4);
    EXPECT_EQ(row.SegTable.pubStartAddr, word(12));
    EXPECT_EQ(row.status, 16);
}

// A request "RIP0": float, linked list, map of 8 bits, semaphore, 0x10000 bytes in blocks of 0x1000, VM. 16 blocks
// need 16 bytes of map, aligned up to a block: 15 blocks from kFloatStart + 0x1000.
constexpr U8 kRequestBytes[28] = {'R', 'I', 'P', '0', 1, 1, 8, 1, 0, 0, 1, 0, 0, 0x10, 0, 0};
constexpr U8 kAnsweredBytes[28] = {'R', 'I', 'P', '0', 1, 1, 8, 1,    0, 0, 1, 0, 0, 0x10,
                                   0,   0,   5,   0,   0, 0, 0, 0xF0, 0, 0, 1, 0, 0, 0};

TEST_F(Records, ARequestReadBackFromUserSpaceHasHandleAndGrantedSizeFilledIn)
{
    start();
    std::memcpy(at(sim::kScratch), kRequestBytes, 28);
    at(sim::kScratch)[24] = 1; // ubVM
    fill(sim::kScratch + 28, 0xEE, 4);

    EXPECT_EQ(Velmora_MM_ioctl(MM_CMD_CREATE_SEGMENT, sim::kScratch), 0);
    EXPECT_EQ(std::memcmp(at(sim::kScratch), kAnsweredBytes, 28), 0);
    EXPECT_TRUE(isFilled(sim::kScratch + 28, 0xEE, 4));
    expectSilence();
}

TEST_F(Records, AnEntryCopiedOutHasItsBytesInPlace)
{
    start();
    std::memcpy(at(sim::kScratch), kRequestBytes, 28);
    at(sim::kScratch)[24] = 1;
    ASSERT_EQ(Velmora_MM_ioctl(MM_CMD_CREATE_SEGMENT, sim::kScratch), 0);

    TMMSegInfo entry;
    std::memset(&entry, 0xEE, sizeof entry);
    ASSERT_EQ(MM_GetMST(5, &entry), 0);
    U8 bytes[80];
    std::memcpy(bytes, &entry, sizeof bytes);
    EXPECT_EQ(std::memcmp(bytes, kAnsweredBytes, 28), 0);
    const U8 expected[44] = {12,   0,    0,    0,                                        // ubBlkBit, padding
                             0x00, 0x30, 0x31, 0x95, 0x00, 0x20, 0x32, 0x95,             // blocks
                             0x00, 0x20, 0x31, 0x95, 0x00, 0x30, 0x31, 0x95,             // map
                             0,    0,    0,    0,    15,   0,    0,    0,    0, 0, 0, 0, // ulSemID, total, allocated
                             15,   0,    0,    0,    15,   0,    0,    0,                // free, largest
                             0x00, 0xF0, 0,    0};                                       // ulRealAvailSize
    EXPECT_EQ(std::memcmp(bytes + 28, expected, 44), 0);
    EXPECT_EQ(entry.pfnAlloc, &MM_AllocBlk);
    EXPECT_EQ(entry.pfnFree, &MM_FreeBlk);
}

// Handles ---------------------------------------------------------------------------------------------

TEST_F(Records, TheHeapHasTwoHandles)
{
    startWithFreeMemory(0x1000);
    createHeap(64); // 64 blocks
    for (const U32 handle : {49u, 0x10031u}) {
        EXPECT_EQ(MM_GetTotBlk(handle), 64u) << handle;
        EXPECT_EQ(MM_GetTotAvailBlk(handle), 64u) << handle;
        EXPECT_EQ(MM_GetLargestBlk(handle), 64u) << handle;
        EXPECT_EQ(MM_FindNewLargestBlk(handle), 64u) << handle;
        EXPECT_EQ(MM_ReadMST(handle)->pubStartSegAddr, at(kFloatStart)) << handle;
    }
    EXPECT_EQ(MM_AllocBlock(49, 1, 0), kFloatStart + 63 * 64);
    EXPECT_EQ(MM_AllocBlock(0x10031, 1, 0), kFloatStart + 62 * 64);
    EXPECT_EQ(MM_GetTotAvailBlk(49), 62u);
    expectSilence();
}

TEST_F(Records, HandlesAbove49AreRejected)
{
    start();
    const Lines rejected = {
        check(R"((hulHandle < MAX_SEGTABLE_SIZE && hulHandle >= 0) && "The range of Handle is beyond MST range")",
              "mm/MM_Lib", "MM_GetTotBlk")};
    for (const U32 handle : {50u, 0x10030u, 0x10032u, 0xFFFFFFFFu}) {
        EXPECT_EQ(MM_GetTotBlk(handle), 14u) << handle;
        EXPECT_EQ(log(), rejected);
    }
}

} // namespace
} // namespace velmora::test
