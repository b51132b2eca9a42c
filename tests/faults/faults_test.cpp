// A whole session, and in it every call of every service that may fail, one at a time. Each failure leaves the state that the manager
// documents; what was not done is done when it is asked for again, and the rest of the session is answered as if nothing had
// been.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "controller/device.h"
#include "controller/manager_state.h"
#include "controller/proc_file.h"
#include "host/machine.h"
#include "kernel/mm/guard/MM_Guard.h"
#include "kernel/mm/mmi/MM_Interface.h"

namespace velmora::test {
namespace {

using sim::KernelService;
using sim::Machine;
using sim::machine;
using sim::ServiceCall;

using Record = std::vector<std::uint8_t>;
using Lines = std::vector<std::string>;

// What a step was answered, and what it left.
struct Reply {
    int answer;
    Record record;
    Lines log;
    std::string state;
};
using Replies = std::vector<Reply>;

template <class T> Record bytesOf(const T& record)
{
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(&record);
    return {bytes, bytes + sizeof record};
}

template <class T> T recordIn(const Reply& reply)
{
    T record;
    std::memcpy(&record, reply.record.data(), sizeof record);
    return record;
}

constexpr U32 kMapping = 0, kLoad = 1, kUnload = 2, kProc = 3; // beside the commands of the device

struct Step {
    U32 number; // of the command, or one of the above
    std::function<Record(const Replies&)> record = [](const Replies&) { return Record(); };
};

Step command(U32 number, const Record& record)
{
    return {number, [record](const Replies&) { return record; }};
}

Step create(const char* name, U32 bytes, U32 blockBytes, U8 type, U8 map = 0, U8 discipline = LINKEDLIST,
            U8 overflow = 0)
{
    TSegInfoFromApp info{};
    std::memcpy(info.aubSegID, name, sizeof info.aubSegID);
    info.ubType = type;
    info.ubSegDSType = discipline;
    info.ubMap = map;
    info.ubSemaphore = YES;
    info.ulSegSize = bytes;
    info.ulBlkSize = blockBytes;
    info.ubVM = overflow;
    return command(MM_CMD_CREATE_SEGMENT, bytesOf(info));
}

Step allocate(U32 handle, U32 bytes, U8 owner = 0)
{
    return command(MM_CMD_MALLOC, bytesOf(TMallocInfo{handle, bytes, owner, {}, 0}));
}

// Steps that need the address that an earlier one was given.
Step release(std::size_t allocation)
{
    return {MM_CMD_FREE, [=](const Replies& replies) {
                const auto info = recordIn<TMallocInfo>(replies[allocation]);
                return bytesOf(TFreeInfo{info.hulHandle, info.pubStart, info.ulReqBytes});
            }};
}

Step fill(std::size_t allocation)
{
    return {MM_CMD_MEMSET, [=](const Replies& replies) {
                const auto info = recordIn<TMallocInfo>(replies[allocation]);
                return bytesOf(TMemsetInfo{info.pubStart, 0x5A, info.ulReqBytes});
            }};
}

Step mapping(std::size_t allocation)
{
    return {kMapping, [=](const Replies& replies) { return replies[allocation].record; }};
}

// A job from load to unload: every command, segments of every kind, an overflow, owners, a stack.
std::vector<Step> session()
{
    constexpr U32 firstFloat = 5;
    TAddSegmentInfo row{};
    std::memcpy(row.aubCFGID, "$FIL", sizeof row.aubCFGID);
    TQueryPhysAddrInfo phys{};
    phys.ulStart = 0x95400000;
    TGetMSTInfo mst{};
    mst.hubHandle = firstFloat;
    TDeleteSegmentInfo gone{};
    std::memcpy(gone.aubCFGID, "$FIL", sizeof gone.aubCFGID);
    return {
        {kLoad},
        command(MM_CMD_ENTRY, bytesOf(TMMInitOption{MM_CONSTRUCT_DEFAULT_MCT})),
        command(MM_CMD_LIB_ENTRY, bytesOf(TLibEntryInfo{SM_BKUP_OK, 0})),
        create("$JCB", 0, 1024, FIXED),
        create("PAGE", 1 << 20, 4096, FLOATALIGN, 8, LINKEDLIST, 1),
        create("BITS", 0x10000, 64, FLOAT, 1),
        create("STCK", 0x10000, 64, FLOAT, 0, STACK),
        create("HEAP", 0, 8192, FLOAT, 8),
        allocate(0, 1000),                   // step 8
        allocate(firstFloat, 300000, 0x0F),  // 9
        allocate(firstFloat, 500000, 0x33),  // 10
        allocate(firstFloat, 400000, 0x0F),  // 11, overflows into the heap
        allocate(firstFloat + 1, 1000, 1),   // 12
        allocate(firstFloat + 2, 2000),      // 13
        allocate(firstFloat + 2, 100),       // 14
        allocate(HEAPHANDLE, 100000, 7),     // 15
        allocate(firstFloat, 0x7FFFFFFF, 1), // refused: there is no room anywhere
        fill(9),
        fill(11),
        mapping(9),
        mapping(11),
        command(MM_CMD_CHECK_SEGMENT, bytesOf(TCheckSegmentInfo{firstFloat, 0x95400000, 0, {}})),
        command(MM_CMD_DISPLAY_MST, bytesOf(TDisplayMSTInfo{MM_DISPLAY_ALL, 0, {}})),
        command(MM_CMD_GET_MST, bytesOf(mst)),
        command(MM_CMD_GET_MCT, bytesOf(TGetMCTInfo{})),
        command(MM_CMD_QUERY_PHYS_ADDR, bytesOf(phys)),
        command(MM_CMD_ADD_SEGMENT, bytesOf(row)),
        command(MM_CMD_CLEAR_SEGMENT, bytesOf(row)),
        {kProc},
        command(MM_CMD_COLLECT_GARBAGE, bytesOf(TCollectGarbageInfo{firstFloat, 0x0F, {}})),
        release(14),
        release(13),
        release(12),
        release(11),
        release(10),
        release(15),
        release(8),
        command(MM_CMD_DELETE_SEGMENT, bytesOf(gone)),
        command(MM_CMD_LIB_ENTRY, bytesOf(TLibEntryInfo{SM_BKUP_NG, 0})),
        create("PAGE", 1 << 20, 4096, FLOAT, 4),
        {kUnload},
        {kLoad},
        {kUnload},
    };
}

int enter(const std::function<S32()>& entry)
{
    const sim::Outcome outcome = machine().run([&] { return static_cast<U32>(entry()); });
    EXPECT_TRUE(outcome.returned()) << outcome.describe("a step");
    for (const TMMLock lock : {search_lock, free_lock, push_lock, pop_lock})
        EXPECT_FALSE(machine().lockHeld(lock));
    return static_cast<int>(outcome.value);
}

S32 load()
{
    std::memset(bigphysarea_info, 0, sizeof bigphysarea_info);
    std::memcpy(bigphysarea_info, "95000000-9e000000", sizeof bigphysarea_info - 1);
    return printer_mm_init();
}

S32 mapPage(const Record& allocation)
{
    TMallocInfo info;
    std::memcpy(&info, allocation.data(), sizeof info);
    sim::MapTarget target;
    TMMMapRequest request{info.pubStart >> MMP_PAGE_SHIFT, 0x20000000, 0x20001000, 0, &target};
    const S32 answer = Velmora_MM_mmap(&request);
    EXPECT_EQ(target.mapped, answer == 0);
    return answer;
}

Reply run(U32 number, Record record)
{
    int answer = 0;
    machine().takeLog();
    switch (number) {
    case kLoad: answer = enter(load); break;
    case kUnload:
        enter([] {
            printer_mm_exit();
            return 0;
        });
        break;
    case kProc: answer = enter([] { return static_cast<S32>(sim::readProcFile(0, 10).size()); }); break;
    case kMapping: answer = enter([&] { return mapPage(record); }); break;
    default:
        std::memcpy(Machine::at(sim::kScratch), record.data(), record.size());
        answer = enter([=] { return Velmora_MM_ioctl(number, sim::kScratch); });
        std::memcpy(record.data(), Machine::at(sim::kScratch), record.size());
    }
    return {answer, record, machine().takeLog(), sim::dumpManagerState()};
}

// What is documented of a failure: the answer, the beginning of the last line on the kernel log, what the tables say.
enum class Tables { AsBefore, AsIfDone }; // a load that fails has set the bounds of the area
struct Documented {
    int answer;
    const char* line;
    Tables tables = Tables::AsBefore;
    bool done = false; // nothing is to be asked for again
};

Documented effectOf(KernelService service, U32 number)
{
    switch (service) {
    case KernelService::AccessOk: return {-22, "Velmora_MM_ioctl: Read access to user parameter buffer is failed.\n"};
    case KernelService::CopyIn:
        return {-14, "Velmora_MM_ioctl: From user buffer to kernel parameter copy is failed.\n"};
    case KernelService::CopyOut:
        return {-14, "Velmora_MM_ioctl: From user buffer to kernel parameter copy is failed.\n", Tables::AsIfDone,
                true};
    case KernelService::TakeMemory: return {EASSERT, "MM_Guard: no kernel memory for the segment's bits: "};
    case KernelService::RegisterDevice:
        return {-16, "printer_mm_init: \nMemory Manager Loading is failed.\n", Tables::AsIfDone};
    case KernelService::CreateProc: return {-1, "\nCan't make a proc file!!!\n", Tables::AsIfDone};
    case KernelService::PageIsRam:
        return number == kLoad ? Documented{-1, "printer_mm_init: \nCan't get Big Memory Info"}
                               : Documented{-5, nullptr};
    case KernelService::Remap: return {-11, nullptr};
    default: return {0, nullptr};
    }
}

class Faults : public ::testing::Test
{
protected:
    Faults() { reference_ = play({}); }

    // The session as it goes when nothing fails.
    static Replies play(const std::optional<ServiceCall>& failing)
    {
        sim::powerOn();
        machine().faults.failing = failing;
        Replies replies;
        for (const Step& step : steps())
            replies.push_back(run(step.number, step.record(replies)));
        return replies;
    }

    static const std::vector<Step>& steps()
    {
        static const std::vector<Step> all = session();
        return all;
    }

    static void expectSame(const Reply& reply, const Reply& expected)
    {
        EXPECT_EQ(reply.answer, expected.answer);
        EXPECT_EQ(reply.record, expected.record);
        EXPECT_EQ(reply.state, expected.state);
    }

    // Plays the session with one failure; the step that it meets is asked for again where it was not done.
    void playWith(ServiceCall failing)
    {
        sim::powerOn();
        machine().faults.failing = failing;
        std::string before = sim::dumpManagerState();
        unsigned failures = 0;
        for (std::size_t i = 0; i < steps().size() && !HasFailure(); ++i) {
            SCOPED_TRACE("step " + std::to_string(i));
            const U32 number = steps()[i].number;
            const Record record = steps()[i].record(reference_);
            const unsigned long calls = machine().calls(failing.service);
            Reply reply = run(number, record);
            if (calls < failing.call && failing.call <= machine().calls(failing.service)) {
                ++failures;
                const Documented expected = effectOf(failing.service, number);
                expectDocumented(reply, expected, record,
                                 expected.tables == Tables::AsIfDone ? reference_[i].state : before);
                reply = expected.done ? reference_[i] : run(number, record);
            }
            expectSame(reply, reference_[i]);
            before = reference_[i].state;
        }
        EXPECT_EQ(failures, 1U);
    }

    static void expectDocumented(const Reply& reply, const Documented& expected, const Record& asked,
                                 const std::string& state)
    {
        EXPECT_EQ(reply.answer, expected.answer);
        EXPECT_EQ(reply.record, asked); // nothing came back
        EXPECT_EQ(reply.state, state);
        if (expected.line == nullptr) {
            EXPECT_EQ(reply.log, Lines());
            return;
        }
        ASSERT_FALSE(reply.log.empty());
        EXPECT_EQ(reply.log.back().substr(0, std::strlen(expected.line)), expected.line);
    }

    void playEach(KernelService service)
    {
        const long taken = machine().memoryTaken();
        play({});
        const unsigned long calls = machine().calls(service);
        for (unsigned long call = 1; call <= calls && !HasFailure(); ++call) {
            SCOPED_TRACE("call " + std::to_string(call) + " of " + std::to_string(calls));
            playWith({service, call});
            EXPECT_EQ(machine().memoryTaken(), taken);
        }
        played_ = calls;
    }

    Replies reference_;
    unsigned long played_ = 0; // failures
};

TEST_F(Faults, TheSessionItselfUsesEveryCommandAndEndsWithEverythingGivenBack)
{
    for (U32 number = MM_CMD_FIRST; number < MM_CMD_FIRST + MM_CMD_COUNT; ++number)
        EXPECT_TRUE(std::any_of(steps().begin(), steps().end(), [=](const Step& step) {
            return step.number == number;
        })) << number;
    EXPECT_EQ(recordIn<TMallocInfo>(reference_[11]).ulReqBytes, 400000U);
    EXPECT_TRUE(MM_CheckHeapArea(MM_At(recordIn<TMallocInfo>(reference_[11]).pubStart)) ==
                0); // the library was started anew
    EXPECT_GT(recordIn<TMallocInfo>(reference_[11]).pubStart, recordIn<TMallocInfo>(reference_[9]).pubStart);
    EXPECT_TRUE(machine().devices().empty());
    EXPECT_TRUE(machine().procEntries().empty());
    EXPECT_FALSE(machine().interruptsOff());
}

TEST_F(Faults, ARecordOutsideTheCallersMemoryChangesNothing)
{
    playEach(KernelService::AccessOk);
    EXPECT_GT(played_, 30U);
}

TEST_F(Faults, ARecordThatCannotBeReadChangesNothing)
{
    playEach(KernelService::CopyIn);
    EXPECT_GT(played_, 30U);
}

TEST_F(Faults, WhatACommandDidStaysDoneWhenItsRecordCannotBeWritten)
{
    playEach(KernelService::CopyOut);
    EXPECT_GT(played_, 20U);
}

TEST_F(Faults, ALoadWithoutADeviceLeavesNothing)
{
    playEach(KernelService::RegisterDevice);
    EXPECT_EQ(played_, 2U);
}

TEST_F(Faults, ALoadWithoutAProcFileLeavesItsDeviceAndTheNextOneWorks)
{
    playEach(KernelService::CreateProc);
    EXPECT_EQ(played_, 2U);
    EXPECT_EQ(machine().devices().size(), 1U); // device-stays
}

TEST_F(Faults, MappingsThatTheKernelRefusesChangeNothing)
{
    playEach(KernelService::Remap);
    EXPECT_EQ(played_, 2U);
    playEach(KernelService::PageIsRam);
    EXPECT_EQ(played_, MM_Guarded ? 6U : 2U); // two loads, which look at both ends of the area
}

TEST_F(Faults, ASegmentWithoutKernelMemoryConsumesNothing)
{
    playEach(KernelService::TakeMemory);
    EXPECT_EQ(played_, MM_Guarded ? 5U : 0U); // of the six segments the stack needs none
}

} // namespace
} // namespace velmora::test
