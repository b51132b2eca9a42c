// The controller behind its socket: what each message is answered.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "controller/service.h"
#include "host/machine.h"

namespace velmora::test {
namespace {

using namespace protocol;
using sim::Peer;
using sim::Reply;
using sim::Service;
using sim::ServiceOptions;

template <class Message> Message as(const Reply& reply)
{
    Message message{};
    EXPECT_GE(reply.message.size(), sizeof message);
    std::memcpy(&message, reply.message.data(), std::min(reply.message.size(), sizeof message));
    return message;
}

std::string textOf(const Reply& reply)
{
    return {reinterpret_cast<const char*>(reply.message.data()) + sizeof(Plain), reply.message.size() - sizeof(Plain)};
}

class ServiceTest : public ::testing::Test
{
protected:
    explicit ServiceTest(const ServiceOptions& options = {}) : service(options)
    {
        send(Hello{headerOf(Kind::Hello, 1)});
    }

    template <class Request> Reply send(const Request& request, std::span<const std::byte> more = {})
    {
        std::vector<std::byte> packet(sizeof request + more.size());
        std::memcpy(packet.data(), &request, sizeof request);
        std::copy(more.begin(), more.end(), packet.begin() + sizeof request);
        return service.answer(peer, packet);
    }

    // A command on the first `bytes` bytes of a record, of which `writable` can be written.
    template <class Record>
    CommandAnswer run(std::uint32_t number, Record& record, std::uint32_t bytes = sizeof(Record),
                      std::uint32_t writable = sizeof(Record))
    {
        const Reply reply =
            send(Command{headerOf(Kind::Command, 5), number, kUserMemory, bytes, std::min(bytes, writable)},
                 std::as_bytes(std::span(&record, 1)).first(bytes));
        const auto answer = as<CommandAnswer>(reply);
        EXPECT_EQ(reply.message.size(), sizeof answer + bytes);
        EXPECT_EQ(answer.bytes, bytes);
        std::memcpy(&record, reply.message.data() + sizeof answer, bytes);
        return answer;
    }

    void startManager()
    {
        TMMInitOption option = MM_CONSTRUCT_DEFAULT_MCT;
        TLibEntryInfo info{SM_BKUP_OK, 7};
        EXPECT_EQ(run(MM_CMD_ENTRY, option).header.result, 0);
        EXPECT_EQ(run(MM_CMD_LIB_ENTRY, info).header.result, 0);
        EXPECT_EQ(info.status, 0);
    }

    std::vector<std::string> takeLog()
    {
        std::vector<std::string> messages;
        for (; logged < service.log().end(); ++logged)
            messages.push_back(service.log().at(logged));
        return messages;
    }

    Service service;
    Peer peer;
    std::uint64_t logged = 0;
};

TEST_F(ServiceTest, AHelloIsToldWhereTheRamIs)
{
    Peer other;
    const Hello hello{headerOf(Kind::Hello, 77)};
    const Reply reply = service.answer(other, std::as_bytes(std::span(&hello, 1)));
    const auto welcome = as<Welcome>(reply);
    EXPECT_EQ(welcome.header.kind, Kind::Hello);
    EXPECT_EQ(welcome.header.ticket, 77u);
    EXPECT_EQ(welcome.header.version, 1);
    EXPECT_EQ(welcome.pageOffset, 0x94000000u);
    EXPECT_EQ(welcome.ramBytes, 0x10000000u);
    EXPECT_FALSE(reply.closes);
    EXPECT_TRUE(other.welcome);
}

TEST_F(ServiceTest, ACommandRunsOnTheBytesThatCameAndBringsThemBack)
{
    startManager();
    TSegInfoFromApp request{{'B', 'L', 'K', '0'}, FLOAT, LINKEDLIST, 8, NO, 0x10000, 0x1000, 0, 0, 0, {}};
    const CommandAnswer answer = run(MM_CMD_CREATE_SEGMENT, request);
    EXPECT_EQ(answer.header.result, 0);
    EXPECT_EQ(answer.header.ticket, 5u);
    EXPECT_EQ(answer.written, 28u);
    EXPECT_EQ(request.hulHandle, 5u);
}

TEST_F(ServiceTest, ACommandThatOnlyCopiesInWritesNothing)
{
    startManager();
    TCollectGarbageInfo info{5, 1, {1, 2, 3}};
    EXPECT_EQ(run(MM_CMD_COLLECT_GARBAGE, info).written, 0u);
    EXPECT_EQ(info.aubPad[2], 3);
}

TEST_F(ServiceTest, ACopyInEndsAtTheFirstByteThatDidNotCome)
{
    startManager();
    TLibEntryInfo info{SM_BKUP_OK, 7};
    takeLog();
    const CommandAnswer answer = run(MM_CMD_LIB_ENTRY, info, 7);
    EXPECT_EQ(answer.header.result, -EFAULT);
    EXPECT_EQ(answer.written, 0u);
    EXPECT_EQ(takeLog(),
              std::vector<std::string>{"Velmora_MM_ioctl: From user buffer to kernel parameter copy is failed.\n"});
    EXPECT_EQ(run(MM_CMD_LIB_ENTRY, info, 0).header.result, -EFAULT);
}

TEST_F(ServiceTest, ACopyOutEndsAtTheFirstByteThatCannotBeWrittenAndWhatTheCommandDidStaysDone)
{
    startManager();
    TSegInfoFromApp request{{'B', 'L', 'K', '0'}, FLOAT, LINKEDLIST, 8, NO, 0x10000, 0x1000, 0, 0, 0, {}};
    const CommandAnswer answer = run(MM_CMD_CREATE_SEGMENT, request, 28, 20);
    EXPECT_EQ(answer.header.result, -EFAULT);
    EXPECT_EQ(answer.written, 20u);
    EXPECT_EQ(request.hulHandle, 5u);
    EXPECT_EQ(request.ulRetSegSize, 0u);
    TGetMSTInfo entry{};
    entry.hubHandle = 5;
    EXPECT_EQ(run(MM_CMD_GET_MST, entry).header.result, 0);
    EXPECT_EQ(entry.status, 0);
}

TEST_F(ServiceTest, NobodySeesWhatAnotherClientLeftInUserMemory)
{
    startManager();
    TGetMSTInfo full{};
    std::memset(&full, 0x5A, sizeof full);
    run(MM_CMD_GET_MST, full);
    TLibEntryInfo info{SM_BKUP_OK, 7};
    EXPECT_EQ(run(MM_CMD_LIB_ENTRY, info, 4).header.result, -EFAULT); // the other four bytes lie there still
}

TEST_F(ServiceTest, AnAddressThatIsNoUserMemoryIsRefusedAccess)
{
    Reply reply = send(Command{headerOf(Kind::Command, 1), MM_CMD_MALLOC, kNoUserMemory, 0, 0});
    EXPECT_EQ(as<CommandAnswer>(reply).header.result, -EINVAL);
    reply = send(Command{headerOf(Kind::Command, 1), MM_CMD_MALLOC, 0, 0, 0});
    EXPECT_EQ(as<CommandAnswer>(reply).header.result, -EFAULT);
}

TEST_F(ServiceTest, AnUnknownCommandSucceedsAsOnTheNode)
{
    TMMInitOption option = 3;
    EXPECT_EQ(run(0x1234, option).header.result, 0);
    EXPECT_EQ(option, 3u);
}

TEST_F(ServiceTest, AMappingIsGrantedAfterTheManagersYes)
{
    const Reply reply = send(Map{headerOf(Kind::Map, 8), 0x95100, 0x3000, 0});
    const auto answer = as<MapAnswer>(reply);
    EXPECT_EQ(answer.header.result, 0);
    EXPECT_EQ(answer.page, 0x1100u);
    EXPECT_EQ(answer.bytes, 0x3000u);
    EXPECT_EQ(answer.uncached, 0u);
    EXPECT_EQ(reply.descriptor, sim::machine().ramFile());
    EXPECT_EQ(as<MapAnswer>(send(Map{headerOf(Kind::Map, 8), 0x95100, 0x1000, kSync})).uncached, 1u);
}

TEST_F(ServiceTest, ARefusedMappingBringsNoMemory)
{
    const auto refusal = [&](std::uint32_t page, std::uint32_t bytes) {
        const Reply reply = send(Map{headerOf(Kind::Map, 8), page, bytes, 0});
        EXPECT_EQ(reply.descriptor, -1);
        EXPECT_FALSE(reply.closes);
        return as<MapAnswer>(reply).header.result;
    };
    EXPECT_EQ(refusal(0xA4000, 0x1000), -EIO);        // beyond RAM
    EXPECT_EQ(refusal(0x93FFF, 0x1000), -EIO);        // before it
    EXPECT_EQ(refusal(0xA3FFF, 0xF0002000), -EINVAL); // beyond the physical space
    EXPECT_EQ(refusal(0x95100, 0), -EINVAL);          // no kernel asks so
    EXPECT_EQ(refusal(0x95100, 0x1001), -EINVAL);
}

class RefusingServiceTest : public ServiceTest
{
protected:
    RefusingServiceTest() : ServiceTest(options()) {}
    static ServiceOptions options()
    {
        ServiceOptions made;
        made.ramBytes = 0x2000000;
        made.areaEnd = 0x96000000;
        made.faults = {{MM_CMD_MALLOC, 2, 4}, {kFailOpen, 0, -ENOMEM}};
        made.refuseMappings = true;
        made.clientsMayFault = true;
        made.mostAccesses = 1000;
        return made;
    }
};

TEST_F(RefusingServiceTest, TheNthCallFailsWithoutReachingTheManager)
{
    startManager();
    TSegInfoFromApp request{{'B', 'L', 'K', '0'}, FLOAT, LINKEDLIST, 8, NO, 0x10000, 0x1000, 0, 0, 0, {}};
    EXPECT_EQ(run(MM_CMD_CREATE_SEGMENT, request).header.result, 0);
    TMallocInfo info{5, 0x1000, 1, {}, 0x77};
    EXPECT_EQ(run(MM_CMD_MALLOC, info).header.result, 0);
    info.pubStart = 0x77;
    EXPECT_EQ(run(MM_CMD_MALLOC, info).header.result, 4);
    EXPECT_EQ(info.pubStart, 0x77u);
    EXPECT_EQ(run(MM_CMD_MALLOC, info).header.result, 0);
    TGetMSTInfo entry{};
    entry.hubHandle = 5;
    run(MM_CMD_GET_MST, entry);
    EXPECT_EQ(entry.SegTable.ulTotalAllocBlkNum, 2u);
}

TEST_F(RefusingServiceTest, EveryOpenFailsUntilFaultsAreForgotten)
{
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(as<Plain>(send(Open{headerOf(Kind::Open, 1), 0})).header.result, -ENOMEM);
    EXPECT_EQ(peer.opens, 0u);
    EXPECT_EQ(as<Plain>(send(Fail{headerOf(Kind::Fail, 1), kFailNothing, 0, 0})).header.result, 0);
    EXPECT_EQ(as<Plain>(send(Open{headerOf(Kind::Open, 1), 0})).header.result, 0);
    EXPECT_EQ(peer.opens, 1u);
    service.leave(peer);
    EXPECT_EQ(peer.opens, 0u);
}

TEST_F(RefusingServiceTest, ClientsAskForFaultsThatCountFromThen)
{
    TMMInitOption option = MM_CONSTRUCT_DEFAULT_MCT;
    EXPECT_EQ(run(MM_CMD_ENTRY, option).header.result, 0);
    send(Fail{headerOf(Kind::Fail, 1), MM_CMD_ENTRY, 1, 14});
    send(Fail{headerOf(Kind::Fail, 1), MM_CMD_ENTRY, 2, -5});
    EXPECT_EQ(run(MM_CMD_ENTRY, option).header.result, 14);
    EXPECT_EQ(run(MM_CMD_ENTRY, option).header.result, -5);
    EXPECT_EQ(run(MM_CMD_ENTRY, option).header.result, 0);
}

TEST_F(RefusingServiceTest, ThereIsAnEndToTheFaultsThatClientsMayAskFor)
{
    int result = 0;
    for (int i = 0; i < 1001 && result == 0; ++i)
        result = as<Plain>(send(Fail{headerOf(Kind::Fail, 1), MM_CMD_MALLOC, 1000, 4})).header.result;
    EXPECT_EQ(result, -ENOSPC);
}

TEST_F(RefusingServiceTest, AKernelThatMapsNothingMakesTheManagerAnswerAgain)
{
    EXPECT_EQ(as<MapAnswer>(send(Map{headerOf(Kind::Map, 8), 0x95100, 0x1000, 0})).header.result, -EAGAIN);
    send(Fail{headerOf(Kind::Fail, 1), kFailMap, 1, -ENOMEM});
    EXPECT_EQ(as<MapAnswer>(send(Map{headerOf(Kind::Map, 8), 0x95100, 0x1000, 0})).header.result, -ENOMEM);
}

TEST_F(RefusingServiceTest, ACommandWithoutAnEndStopsTheController)
{
    startManager();
    TSegInfoFromApp request{{'B', 'L', 'K', '0'}, FLOAT, LINKEDLIST, 8, NO, 0x10000, 0x40, 0, 0, 0, {}};
    run(MM_CMD_CREATE_SEGMENT, request);
    TCollectGarbageInfo info{5, 1, {}};
    const Reply reply = send(Command{headerOf(Kind::Command, 3), MM_CMD_COLLECT_GARBAGE, kUserMemory, 8, 8},
                             std::as_bytes(std::span(&info, 1)));
    EXPECT_TRUE(reply.stopped);
    EXPECT_EQ(textOf(reply), "the simulated controller stopped: ioctl MM_CMD_COLLECT_GARBAGE goes on without an end");
}

TEST_F(RefusingServiceTest, RamAndAreaAreThoseThatWereAskedFor)
{
    EXPECT_EQ(as<Welcome>(send(Hello{headerOf(Kind::Hello, 1)})).ramBytes, 0x2000000u);
    EXPECT_EQ(as<MapAnswer>(send(Map{headerOf(Kind::Map, 8), 0x96000, 0x1000, 0})).header.result, -EIO);
    service.setClients(3);
    const auto status = as<StatusAnswer>(send(Status{headerOf(Kind::Status, 1)}));
    EXPECT_EQ(status.ramBytes, 0x2000000u);
    EXPECT_EQ(status.areaStart, 0x95100000u);
    EXPECT_EQ(status.areaEnd, 0x95F00000u);
    EXPECT_EQ(status.clients, 3u);
    EXPECT_EQ(status.logMessages, 2u); // of the load
}

TEST_F(ServiceTest, FaultsAreNotForClientsUnlessTheControllerLetsThem)
{
    EXPECT_EQ(as<Plain>(send(Fail{headerOf(Kind::Fail, 1), MM_CMD_ENTRY, 1, 14})).header.result, -EPERM);
    TMMInitOption option = MM_CONSTRUCT_DEFAULT_MCT;
    EXPECT_EQ(run(MM_CMD_ENTRY, option).header.result, 0);
}

TEST_F(ServiceTest, ACommandThatTouchesNoMemoryStopsTheControllerWithAReport)
{
    TMemsetInfo info{0xA4000000, 0, 1};
    const Reply reply = send(Command{headerOf(Kind::Command, 3), MM_CMD_MEMSET, kUserMemory, 12, 12},
                             std::as_bytes(std::span(&info, 1)));
    EXPECT_TRUE(reply.stopped);
    EXPECT_EQ(as<Plain>(reply).header.kind, Kind::Stopped);
    EXPECT_EQ(as<Plain>(reply).header.ticket, 3u);
    EXPECT_EQ(textOf(reply),
              "the simulated controller stopped: ioctl MM_CMD_MEMSET touched 0xa4000000, which does not exist");
}

TEST_F(ServiceTest, AFollowerOfTheLogGetsEachMessageOnce)
{
    Peer follower;
    const Hello hello{headerOf(Kind::Hello, 1)};
    service.answer(follower, std::as_bytes(std::span(&hello, 1)));
    EXPECT_TRUE(service.logMessage(follower).empty());
    const FollowLog follow{headerOf(Kind::FollowLog, 2), kFromStart};
    service.answer(follower, std::as_bytes(std::span(&follow, 1)));

    Reply message{service.logMessage(follower)};
    EXPECT_EQ(as<LogMessage>(message).header.kind, Kind::LogMessage);
    EXPECT_EQ(as<LogMessage>(message).number, 0u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(message.message.data()) + sizeof(LogMessage),
                          message.message.size() - sizeof(LogMessage)),
              "****** A : [0x95000000], B : [0x9DF00000], PAGE_OFFSET : [0x94000000] *****\n");
    service.logMessageSent(follower);
    EXPECT_EQ(as<LogMessage>(Reply{service.logMessage(follower)}).number, 1u);
    service.logMessageSent(follower);
    EXPECT_TRUE(service.logMessage(follower).empty());
}

TEST_F(ServiceTest, AFollowerFromNowOnGetsNothingOld)
{
    send(FollowLog{headerOf(Kind::FollowLog, 2), 0});
    EXPECT_TRUE(service.logMessage(peer).empty());
}

TEST_F(ServiceTest, AFollowerAsksNothingMore)
{
    send(FollowLog{headerOf(Kind::FollowLog, 2), 0});
    EXPECT_TRUE(send(Status{headerOf(Kind::Status, 1)}).closes);
}

// What is no request, and the sentence that it is answered.
struct Bad {
    const char* name;
    std::vector<std::uint8_t> packet;
    int code;
    const char* sentence;
};

std::vector<std::uint8_t> bytesOf(const auto& message, std::size_t more = 0)
{
    std::vector<std::uint8_t> bytes(sizeof message + more, 0xAB);
    std::memcpy(bytes.data(), &message, sizeof message);
    return bytes;
}

std::vector<Bad> badPackets()
{
    const auto header = [](Kind kind) { return headerOf(kind, 9); };
    const Command command{header(Kind::Command), MM_CMD_MALLOC, kUserMemory, 16, 16};
    const auto with = [&](auto change) {
        Command changed = command;
        change(changed);
        return changed;
    };
    std::vector<std::uint8_t> shortHeader = bytesOf(header(Kind::Hello));
    shortHeader.pop_back();
    const char* const noRequest = "what was sent is no request to a controller";
    const char* const elsewhere = "a command's bytes of user memory are not where its address says";
    return {
        {"nothing", {}, -EPROTO, noRequest},
        {"part of a header", shortHeader, -EPROTO, noRequest},
        {"another magic", bytesOf(Header{1, kVersion, Kind::Hello, 9, 0}), -EPROTO, noRequest},
        {"another version", bytesOf(Header{kMagic, 2, Kind::Hello, 9, 0}), -EPROTONOSUPPORT,
         "the controller speaks version 1 of its protocol, the program version 2"},
        {"no such kind", bytesOf(header(Kind(99))), -EPROTO, "there is no request of kind 99"},
        {"an answer's kind", bytesOf(header(Kind::Stopped)), -EPROTO, "there is no request of kind 258"},
        {"too short", bytesOf(header(Kind::Map)), -EPROTO, "the request has 16 bytes, where it should have 28"},
        {"too long", bytesOf(Status{header(Kind::Status)}, 1), -EPROTO,
         "the request has 17 bytes, where it should have 16"},
        {"less user memory than it says", bytesOf(command, 15), -EPROTO,
         "the request has 47 bytes, where it should have 48"},
        {"more user memory than it says", bytesOf(command, 17), -EPROTO,
         "the request has 49 bytes, where it should have 48"},
        {"more user memory than a record", bytesOf(with([](Command& c) { c.bytes = 89; }), 89), -EPROTO,
         "a command brings 88 bytes of user memory at most, not 89"},
        {"a count that wraps", bytesOf(with([](Command& c) { c.bytes = 0xFFFFFFF0; })), -EPROTO,
         "a command brings 88 bytes of user memory at most, not 4294967280"},
        {"more to write than to read", bytesOf(with([](Command& c) { c.writable = 17; }), 16), -EPROTO, elsewhere},
        {"user memory at a kernel address", bytesOf(with([](Command& c) { c.address = 0x95100000; }), 16), -EPROTO,
         elsewhere},
    };
}

TEST_F(ServiceTest, WhatIsNoRequestIsAnsweredWithASentenceAndEndsTheConnection)
{
    for (const Bad& bad : badPackets()) {
        SCOPED_TRACE(bad.name);
        const Reply reply = service.answer(peer, std::as_bytes(std::span(bad.packet)));
        EXPECT_TRUE(reply.closes);
        EXPECT_FALSE(reply.stopped);
        EXPECT_EQ(as<Plain>(reply).header.kind, Kind::Refused);
        EXPECT_EQ(as<Plain>(reply).header.result, bad.code);
        EXPECT_EQ(textOf(reply), bad.sentence);
    }
}

TEST_F(ServiceTest, AConnectionBeginsWithAHello)
{
    Peer other;
    const Status early{headerOf(Kind::Status, 9)};
    const Reply reply = service.answer(other, std::as_bytes(std::span(&early, 1)));
    EXPECT_TRUE(reply.closes);
    EXPECT_EQ(textOf(reply), "a connection begins with a hello");
}

TEST_F(ServiceTest, APacketThatDidNotComeWholeIsNoRequest)
{
    const Status status{headerOf(Kind::Status, 9)};
    EXPECT_TRUE(service.answer(peer, std::as_bytes(std::span(&status, 1)), false).closes);
}

} // namespace
} // namespace velmora::test
