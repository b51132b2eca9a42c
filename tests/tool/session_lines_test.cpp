// Lines of a session script by name: what stands for what, both ways.
#include <cstring>

#include <gtest/gtest.h>

#include "tools/recording.hpp"

namespace velmora::test {
namespace {

using namespace tools;

NamedLine parse(const std::string& line)
{
    return parseNamed(sim::splitLine(line));
}

class Known : public Meanings
{
public:
    std::uint32_t handleOf(const std::string& name) override
    {
        if (name == "BAND")
            return 7;
        throw sim::SyntaxError("there is no segment '" + name + "'");
    }
    bool isKnown(const std::string& variable) override { return variable == "$a"; }
    std::uint32_t valueOf(const std::string& variable) override { return allocationOf(variable).start; }
    Allocation allocationOf(const std::string& variable) override
    {
        if (!isKnown(variable))
            throw sim::SyntaxError("nothing was given to " + variable);
        return {7, 0x95400000, 0x10000};
    }
};

std::string record(const std::string& line)
{
    Known known;
    const Request request = requestOf(parse(line), known);
    return std::to_string(request.number) + " " + sim::toHex(request.record.data(), request.record.size());
}

std::string refusal(const std::string& line)
{
    try {
        record(line);
    } catch (const sim::SyntaxError& error) {
        return error.what();
    }
    return "understood";
}

TEST(SessionLines, EachStandsForItsCommandAndRecord)
{
    EXPECT_EQ(record("table"), "21256 00000000");
    EXPECT_EQ(record("start option=2"), "21248 0200000000000000");
    EXPECT_EQ(record("create name=BAND type=float kind=list bytes=1M block=4K map=8 lock=yes overflow=yes"),
              "21249 42414e4401010801000010000010000000000000000000000100"
              "0000");
    EXPECT_EQ(record("create name=$J type=fixed kind=stack block=0x400"),
              "21249 244a00000000000000000000000400000000000000000000000"
              "00000");
    EXPECT_EQ(record("malloc segment=BAND bytes=64K owner=1 -> $b"), "21250 07000000000001000100000000000000");
    EXPECT_EQ(record("malloc segment=heap bytes=100"), "21250 31000000640000000000000000000000");
    EXPECT_EQ(record("free $a"), "21251 070000000000409500000100");
    EXPECT_EQ(record("free $a+4K"), "21251 070000000010409500f00000");
    EXPECT_EQ(record("free 0x95400010 segment=5 bytes=16"), "21251 050000001000409510000000");
    EXPECT_EQ(record("fill $a byte=0x5a"), "21252 000040955a00000000000100");
    EXPECT_EQ(record("delete name=$UEV"), "21253 2455455600");
    EXPECT_EQ(record("clear name=$ALL"), "21255 24414c4c000000000000000000000000");
    EXPECT_EQ(record("collect segment=BAND owner=0x0f"), "21257 070000000f000000");
    EXPECT_EQ(record("contains $a+1 segment=BAND"), "21258 070000000100409500000000");
    EXPECT_EQ(record("display segment=all"), "21259 6400000000000000");
    EXPECT_EQ(record("phys 0x95400000"), "21260 000000000000409500000000");
    EXPECT_EQ(record("mct row=4").substr(0, 8), "21262 04");
    EXPECT_EQ(record("mst segment=BAND").substr(0, 8), "21261 07");
    EXPECT_EQ(record("mmap $a sync").substr(0, 20), "0 000040950000010001");
}

TEST(SessionLines, WhatIsNotUnderstoodIsSaid)
{
    EXPECT_EQ(refusal("malloc bytes=64K"),
              "segment= is missing: 'malloc' takes segment=, bytes=, owner= and -> $variable");
    EXPECT_EQ(refusal("malloc segment=BAND bytes=64Q"), "'64Q' is no number of bytes, as 4096, 64K or 8MiB");
    EXPECT_EQ(refusal("malloc segment=BAND bytes=1 owner=256"), "'256' is no owner: a number of 8 bits at most");
    EXPECT_EQ(refusal("malloc segment=BAND bytes=1 bytes=2"), "'bytes=2' is said a second time");
    EXPECT_EQ(refusal("malloc segment=BAND size=1"),
              "'size=1' is not understood: 'malloc' takes segment=, bytes=, owner= and -> $variable");
    EXPECT_EQ(refusal("malloc segment=NONE bytes=1"), "there is no segment 'NONE'");
    EXPECT_EQ(refusal("malloc segment=BAND bytes=1 -> a"), "one variable follows '->' and ends the line, as $a");
    EXPECT_EQ(refusal("free $b"), "nothing was given to $b");
    EXPECT_EQ(refusal("free $a -> $c"), "'free' gives nothing that a variable could hold");
    EXPECT_EQ(refusal("free 0x95400000 bytes=1"), "'free' of a number needs segment=");
    EXPECT_EQ(refusal("free $a+64K"), "'$a+64K' lies behind the bytes that were allocated");
    EXPECT_EQ(refusal("free"), "the address is missing: 'free' takes an address, segment=, bytes=");
    EXPECT_EQ(refusal("create name=FIVE5 type=float kind=list block=1"),
              "'FIVE5' is no name: it has one to four characters");
    EXPECT_EQ(refusal("create name=X type=floating kind=list block=1"),
              "'floating' is no type: fixed, float, align, a number of 8 bits at most");
    EXPECT_EQ(refusal("mst segment=256"), "'256' is no segment for this command: its handle has 8 bits at most");
    EXPECT_EQ(refusal("malloc segment= bytes=1"), "'segment=' says nothing");
}

TEST(SessionLines, LinesInBytesStayWhatTheyWere)
{
    EXPECT_FALSE(isNamed(sim::splitLine("fill 0x95400000 16 0x5a")));
    EXPECT_FALSE(isNamed(sim::splitLine("mmap 0x95400000 0x1000 sync")));
    EXPECT_FALSE(isNamed(sim::splitLine("ioctl 0x5300 {00}")));
    EXPECT_TRUE(isNamed(sim::splitLine("fill 0x95400000 bytes=16 byte=0x5a")));
    EXPECT_TRUE(isNamed(sim::splitLine("mmap $a")));
}

TEST(SessionLines, NamesThatLookLikeSomethingElseAreWrittenInBytes)
{
    const auto text = [](const char* name) {
        std::uint8_t id[4] = {};
        std::memcpy(id, name, strnlen(name, 4));
        return nameText(id);
    };
    EXPECT_EQ(text("BAND"), "BAND");
    EXPECT_EQ(text("$JCB"), "$JCB");
    EXPECT_EQ(text("A B"), "A\\x20B");
    EXPECT_EQ(text("1234"), "\\x31234");
    EXPECT_EQ(text("heap"), "\\x68eap");
    EXPECT_EQ(text("$a12"), "\\x24a12"); // a variable of recordings
    EXPECT_EQ(text("a#=\\"), "a\\x23\\x3d\\x5c");
    EXPECT_EQ(text(""), "\\x00");
}

// What a program asked, as a recording has it: the same record comes out of the line again.
class Recorded : public ::testing::Test
{
protected:
    template <class Record>
    std::string asked(std::uint32_t number, const Record& record, std::size_t bytes = sizeof(Record))
    {
        Asked asked{{number, std::vector<std::uint8_t>(bytes)}, 0x10000000, bytes};
        std::memcpy(asked.request.record.data(), &record, bytes);
        return writer.asked(asked);
    }
    template <class Record> std::string answered(std::int32_t result, const Record& record)
    {
        Answer answer{result, std::vector<std::uint8_t>(sizeof record)};
        std::memcpy(answer.record.data(), &record, sizeof record);
        return writer.answered(answer);
    }
    void create(const char* name, MM_U32 handle)
    {
        MM_TSegInfoFromApp request{};
        std::memcpy(request.aubSegID, name, 4);
        request.ubType = MM_FLOAT;
        request.ubSegDSType = MM_LINKEDLIST;
        request.ulBlkSize = 4096;
        asked(MM_CMD_CREATE_SEGMENT, request);
        request.hulHandle = handle;
        EXPECT_EQ(answered(0, request), "expect = handle=" + std::to_string(handle) + " bytes=0x0 usable=0x0\n");
    }
    RecordingWriter writer;
};

TEST_F(Recorded, AllocationsAreVariablesAndSegmentsHaveTheirNames)
{
    create("BAND", 7);
    EXPECT_EQ(asked(MM_CMD_MALLOC, MM_TMallocInfo{7, 0x10000, 15, {1, 2, 3}, 99}),
              "malloc segment=BAND bytes=64K owner=0xf -> $a1\n");
    EXPECT_EQ(answered(0, MM_TMallocInfo{7, 0x10000, 15, {}, 0x95400000}), "expect = 0x95400000\n");
    EXPECT_EQ(asked(MM_CMD_QUERY_PHYS_ADDR, MM_TQueryPhysAddrInfo{0, {}, 0x95400800, 0}), "phys $a1+0x800\n");
    EXPECT_EQ(answered(0, MM_TQueryPhysAddrInfo{0, {}, 0x95400800, 0x01400800}), "expect = 0x01400800\n");
    EXPECT_EQ(asked(MM_CMD_FREE, MM_TFreeInfo{7, 0x95400000, 0x10000}), "free $a1\n");
    EXPECT_EQ(asked(MM_CMD_FREE, MM_TFreeInfo{5, 0x95400000, 0x1000}), "free $a1 segment=5 bytes=4K\n");
    EXPECT_EQ(asked(MM_CMD_FREE, MM_TFreeInfo{7, 0x95410000, 0x1000}), "free 0x95410000 segment=BAND bytes=4K\n");
    EXPECT_EQ(asked(MM_CMD_MALLOC, MM_TMallocInfo{7, 0x20000, 1, {}, 0}),
              "malloc segment=BAND bytes=128K owner=0x1 -> $a2\n");
    EXPECT_EQ(answered(MM_EINVASEGSIZE, MM_TMallocInfo{}), "expect no room\n");
    EXPECT_EQ(asked(MM_CMD_MALLOC, MM_TMallocInfo{7, 1, 0, {}, 0}), "malloc segment=BAND bytes=1 -> $a3\n");
    EXPECT_EQ(answered(MM_EASSERT, MM_TMallocInfo{}), "expect refused EASSERT\n");
}

TEST_F(Recorded, AnAllocationTakesTheNameOfTheOnesThatLayThere)
{
    for (const MM_U32 start : {0x95400000U, 0x95401000U, 0x95402000U}) {
        asked(MM_CMD_MALLOC, MM_TMallocInfo{5, 0x1000, 0, {}, 0});
        answered(0, MM_TMallocInfo{5, 0x1000, 0, {}, start});
    }
    asked(MM_CMD_MALLOC, MM_TMallocInfo{5, 0x1000, 0, {}, 0});
    answered(0, MM_TMallocInfo{5, 0x1000, 0, {}, 0x95400800}); // over the first and the second
    EXPECT_EQ(writer.allocationAt(0x95400000), std::nullopt);
    EXPECT_EQ(writer.allocationAt(0x95400900)->variable, "$a4");
    EXPECT_EQ(writer.allocationAt(0x95401800), std::nullopt);
    EXPECT_EQ(writer.allocationAt(0x95402000)->variable, "$a3");
}

TEST_F(Recorded, WhatCannotBeSaidByNameIsSaidInBytes)
{
    EXPECT_EQ(asked(MM_CMD_FREE, MM_TFreeInfo{7, 0x95400000, 0x1000}, 7),
              "# the caller had only the first 7 bytes of this record:\npoke 0x1000fff9 07000000000040\n"
              "ioctl 0x5303 0x1000fff9\n");
    EXPECT_EQ(writer.answered({-14, {}}), "expect = -14\n");
    EXPECT_EQ(writer.asked({{MM_CMD_MALLOC, {}}, 0xFFFFFFFF, 0}), "ioctl 0x5302 0xffffffff\n");
    EXPECT_EQ(writer.asked({{0x5399, {}}, 0x10000000, 0}), "ioctl 0x5399 0x10010000\n");
    Asked unwritable{{MM_CMD_LIB_ENTRY, std::vector<std::uint8_t>(8)}, 0x10000000, 0};
    EXPECT_EQ(writer.asked(unwritable),
              "# the caller had no write permission for this record:\nioctl 0x5300 {0000000000000000}\n");
    EXPECT_EQ(writer.answered({-14, {}}), "") << "a script's memory can be written: it is answered otherwise";
}

} // namespace
} // namespace velmora::test
