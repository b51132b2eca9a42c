// What the manager's tests share: a controller that has just been switched on, short ways to bring it up, and
// the kernel log with the checks' line numbers taken out.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "controller/device.h"
#include "manager.h"

namespace velmora::test {

using sim::Machine;
using sim::machine;
using sim::Outcome;
using sim::powerOn;

class ManagerTest : public ::testing::Test
{
protected:
    ManagerTest() { powerOn(); }

    // A loaded and started manager; the messages of the start are dropped.
    static void start(std::string_view text = kAreaText)
    {
        ASSERT_EQ(load(text), 0);
        ASSERT_EQ(MM_Entry(MM_CONSTRUCT_DEFAULT_MCT), U32(ENOERR));
        ASSERT_EQ(MM_LibEntry(SM_BKUP_OK, nullptr), U32(ENOERR));
        machine().takeLog();
    }

    // A started manager whose free memory begins at kFloatStart and has this many bytes.
    static void startWithFreeMemory(U32 bytes)
    {
        char text[18];
        std::snprintf(text, sizeof text, "95000000-%08x", kFloatStart + bytes + 0x100000);
        start(text);
    }

    static TSegInfoFromApp request(const char* name, U32 bytes, U32 blockBytes)
    {
        TSegInfoFromApp info{};
        setName(info.aubSegID, name);
        info.ubType = FLOAT;
        info.ubSegDSType = LINKEDLIST;
        info.ulSegSize = bytes;
        info.ulBlkSize = blockBytes;
        return info;
    }

    // Creates a float segment of the block allocator and expects success; its handle.
    static U32 createBlocks(const char* name, U32 bytes, U32 blockBytes, U8 mapBits = 0, U8 semaphore = NO)
    {
        TSegInfoFromApp info = request(name, bytes, blockBytes);
        info.ubMap = mapBits;
        info.ubSemaphore = semaphore;
        EXPECT_EQ(MM_CreateSegment(&info), U32(ENOERR)) << name;
        return info.hulHandle;
    }

    static U32 createStack(const char* name, U32 bytes, U32 blockBytes, U8 semaphore = NO)
    {
        TSegInfoFromApp info = request(name, bytes, blockBytes);
        info.ubSegDSType = STACK;
        info.ubSemaphore = semaphore;
        EXPECT_EQ(MM_CreateSegment(&info), U32(ENOERR)) << name;
        return info.hulHandle;
    }

    static void createHeap(U32 blockBytes, U8 mapBits = 0, U8 semaphore = NO)
    {
        EXPECT_EQ(createBlocks("HEAP", 0, blockBytes, mapBits, semaphore), U32(HEAPHANDLE));
    }

    // Messages since the last call, line numbers of checks replaced by N.
    static std::vector<std::string> log()
    {
        std::vector<std::string> messages = machine().takeLog();
        for (std::string& message : messages) {
            const std::size_t number = message.rfind(",line=") + 6;
            if (number >= 6 && message.find_first_not_of("0123456789", number) == message.size() - 1 &&
                message.back() == '\n')
                message.replace(number, message.size() - 1 - number, "N");
        }
        return messages;
    }

    // The one message of a failed check, as it reads after "Assertion failed! ".
    static std::string check(const std::string& text, const std::string& unit, const std::string& function)
    {
        return "Assertion failed! " + text + ",kernel/mm/" + unit + ".cpp," + function + ",line=N\n";
    }
    // The same for a sentence in place of a condition.
    static std::string message(const std::string& text, const std::string& unit, const std::string& function)
    {
        return "Assertion failed! " + text + " kernel/mm/" + unit + ".cpp," + function + ",line=N\n";
    }

    static void expectSilence() { EXPECT_EQ(log(), std::vector<std::string>{}); }

    static void fill(U32 address, U8 byte, U32 bytes) { std::memset(Machine::at(address), byte, bytes); }
    // Fills the fixed segments of a started manager with 0xA5.
    static void fillFixed() { fill(kAreaStart, 0xA5, kFixedBytes); }
    // True when every byte has the value.
    static bool isFilled(U32 address, U8 byte, U32 bytes)
    {
        const std::uint8_t* const first = Machine::at(address);
        return std::all_of(first, first + bytes, [=](std::uint8_t value) { return value == byte; });
    }

    static U8* at(U32 address) { return Machine::at(address); }

    using Lines = std::vector<std::string>;

    static U8* id(const char* name) { return const_cast<U8*>(reinterpret_cast<const U8*>(name)); }

    static void expectRow(const TMCTInfo& row, std::string_view name, U32 bytes, U32 address)
    {
        EXPECT_EQ(std::memcmp(row.aubCFGID, name.data(), sizeof row.aubCFGID), 0) << name;
        EXPECT_EQ(row.ulSize, bytes) << name;
        EXPECT_EQ(MM_Addr(row.pubStartAddr), address) << name;
    }
    // Puts "$NEW" into the row of "$FIL", the last one of the table in use.
    static void replaceFil(U32 address, U32 bytes)
    {
        MM_DeleteSegment(id("$FIL"));
        ASSERT_EQ(MM_AddSegment(id("$NEW"), bytes, at(address)), U32(ENOERR));
    }

    // A stretch of the free-memory list.
    struct FreeNode {
        U32 address, bytes;
        bool operator==(const FreeNode&) const = default;
        friend void PrintTo(const FreeNode& free, std::ostream* out)
        {
            *out << std::hex << free.address << "+" << free.bytes << std::dec;
        }
    };

    // Makes these stretches, in this order, the free-memory list.
    static void setFreeMemory(const std::vector<FreeNode>& stretches)
    {
        pstSegBlkHead = pstSegBlkTail = nullptr;
        for (const FreeNode& free : stretches)
            append(TMMFreeMemoryList{}, free.address, free.bytes);
    }

    // The free-memory list from its head; that links back and tail agree with it is expected.
    static std::vector<FreeNode> freeMemory()
    {
        std::vector<FreeNode> stretches;
        const TMMBlkStr* last = nullptr;
        for (const TMMBlkStr* free = pstSegBlkHead; free != nullptr && stretches.size() < 100; free = free->pstNext) {
            EXPECT_EQ(MM_Addr(free->pstBack), MM_Addr(last));
            stretches.push_back({MM_Addr(free), free->ulSize});
            last = free;
        }
        EXPECT_EQ(MM_Addr(pstSegBlkTail), MM_Addr(last));
        return stretches;
    }
};

} // namespace velmora::test
