// The client library over the simulated device.
#include <cerrno>

#include "controller/device.h"
#include <velmora/device.hpp>
#include "support/manager_fixture.h"

namespace velmora::test {
namespace {

class Client : public ::testing::Test
{
protected:
    Client() { sim::bootController(); }

    static void startManager(velmora::Device& device)
    {
        device.buildTable();
        device.startLibrary(SM_BKUP_OK);
        machine().takeLog();
    }
};

TEST_F(Client, AllFifteenCommands)
{
    velmora::Device device(sim::openDevice());
    startManager(device);
    const TSegInfoFromApp blocks =
        device.createSegment({.name = "BLK0", .bytes = 0x10000, .blockBytes = 0x1000, .mapBits = 8});
    EXPECT_EQ(blocks.hulHandle, 5u);

    const auto address = device.allocate(5, 0x2000, 3);
    ASSERT_TRUE(address);
    EXPECT_TRUE(device.contains(5, *address));
    EXPECT_EQ(device.physicalAddress(*address), *address - 0x94000000);
    device.fill(*address, 0x5A, 0x2000);
    EXPECT_EQ(*Machine::at(*address + 0x1FFF), 0x5A);
    ASSERT_TRUE(device.segment(5));
    EXPECT_EQ(device.segment(5)->ulTotalAllocBlkNum, 2u);
    EXPECT_FALSE(device.segment(HEAPHANDLE));
    device.release(5, *address, 0x2000);
    ASSERT_TRUE(device.allocate(5, 0x1000, 4));
    device.collectGarbage(5, 4);
    EXPECT_EQ(device.segment(5)->ulTotalAllocBlkNum, 0u);

    ASSERT_TRUE(device.tableRow(2));
    EXPECT_EQ(device.tableRow(2)->ulSize, 65536u);
    EXPECT_FALSE(device.tableRow(5));
    device.clearFixedSegment("$JCB");
    device.addFixedSegment("NEW0", 4096, 0);
    device.deleteFixedSegment("$FIL");
    EXPECT_EQ(device.tableRow(4)->ulSize, 0u);
    machine().takeLog();
    device.display(5);
    EXPECT_EQ(machine().takeLog().size(), 5u);
}

TEST_F(Client, NoRoomIsAValue)
{
    velmora::Device device(sim::openDevice());
    startManager(device);
    device.createSegment({.name = "BLK0", .bytes = 0x2000, .blockBytes = 0x1000});
    EXPECT_FALSE(device.allocate(5, 0x100000));
}

TEST_F(Client, ARefusalSaysWhatTheManagerAnswered)
{
    velmora::Device device(sim::openDevice());
    startManager(device);
    try {
        device.allocate(50, 1);
        FAIL() << "no exception";
    } catch (const velmora::Error& error) {
        EXPECT_EQ(error.result(), EASSERT);
        EXPECT_STREQ(error.what(),
                     "MM_CMD_MALLOC: the manager answered 14 (EASSERT); the kernel log names the check that failed");
    }
    machine().faults.copyInStopsAt = 0;
    EXPECT_THROW(device.startLibrary(SM_BKUP_OK), velmora::Error);
}

TEST_F(Client, NamesHaveOneToFourCharacters)
{
    velmora::Device device(sim::openDevice());
    EXPECT_THROW(device.createSegment({.name = "TOOLONG"}), std::invalid_argument);
    EXPECT_THROW(device.clearFixedSegment(""), std::invalid_argument);
}

TEST_F(Client, MappingsAreTheSameMemoryAndUnmapThemselves)
{
    velmora::Device one(sim::openDevice());
    velmora::Device two(sim::openDevice());
    startManager(one);
    one.createSegment({.name = "BLK0", .bytes = 0x10000, .blockBytes = 0x1000});
    const TAddr address = one.allocate(5, 0x3000).value();

    const std::byte* start = nullptr;
    {
        const velmora::Mapping writer = one.map(address + 5, 0x2000);
        velmora::Mapping reader = two.map(address, 0x3000, velmora::Caching::Uncached);
        writer.bytes()[0] = std::byte{0x77};
        EXPECT_EQ(reader.bytes()[5], std::byte{0x77});
        EXPECT_EQ(*Machine::at(address + 5), 0x77);
        EXPECT_EQ(writer.bytes().size(), 0x2000u);
        reader = two.map(address, 1);
        start = reader.bytes().data();
        EXPECT_EQ(start[0], std::byte{0});
    }
    const Outcome end = machine().run([=] { return static_cast<U32>(*const_cast<const volatile std::byte*>(start)); });
    EXPECT_EQ(end.kind, Outcome::Kind::Oops);
}

TEST_F(Client, ARefusedMappingThrowsTheDevicesCode)
{
    velmora::Device device(sim::openDevice());
    const auto refusal = [&](TAddr address, std::size_t bytes) {
        try {
            device.map(address, bytes);
        } catch (const velmora::Error& error) {
            return error.result();
        }
        return 0;
    };
    EXPECT_EQ(refusal(0xA4000000, 0x1000), -5);
    EXPECT_EQ(refusal(0x95100000, 0), -22);
}

TEST_F(Client, AMappingOutlivesItsDevice)
{
    std::optional<velmora::Mapping> view;
    {
        velmora::Device device(sim::openDevice());
        view = device.map(0x95100000, 16);
    }
    view->bytes()[3] = std::byte{0x33};
    EXPECT_EQ(*Machine::at(0x95100003), 0x33);
}

// Notes in which order it is used.
class NotingChannel : public velmora::Channel
{
public:
    explicit NotingChannel(std::vector<std::string>& events) : events_(events) {}
    ~NotingChannel() override { events_.push_back("closed"); }
    int command(std::uint32_t, void*, std::size_t) override { return ENOERR; }
    void* map(TAddr, std::size_t bytes, velmora::Caching) override
    {
        events_.push_back("mapped");
        memory_.resize(bytes);
        return memory_.data();
    }
    void unmap(void*, std::size_t) override { events_.push_back("unmapped"); }

private:
    std::vector<std::string>& events_;
    std::vector<std::byte> memory_;
};

TEST(ClientMapping, TheDescriptorIsClosedWithTheLastView)
{
    std::vector<std::string> events;
    {
        std::optional<velmora::Mapping> last;
        {
            velmora::Device device(std::make_unique<NotingChannel>(events));
            const velmora::Mapping first = device.map(0x95100000, 1);
            last = device.map(0x95101000, 1);
        }
        EXPECT_EQ(events, (std::vector<std::string>{"mapped", "mapped", "unmapped"}));
    }
    EXPECT_EQ(events, (std::vector<std::string>{"mapped", "mapped", "unmapped", "unmapped", "closed"}));
}

// What a call that fails says.
template <class Call> std::string failureOf(Call call)
{
    try {
        call();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "no exception";
}

TEST_F(Client, KernelCodesReadAsWhatTheyAre)
{
    velmora::Device other(velmora::openNode("/dev/null")); // a device of another kind
    EXPECT_EQ(failureOf([&] { other.buildTable(); }), "MM_CMD_ENTRY: ENOTTY: Inappropriate ioctl for device");
    EXPECT_EQ(failureOf([&] { other.map(0x95100000, 4096); }), "mmap: ENODEV: No such device");

    velmora::Device device(sim::openDevice());
    EXPECT_EQ(failureOf([&] { device.map(0x95100000, 0); }), "mmap: EINVAL: Invalid argument");
    machine().faults.copyInStopsAt = 0;
    EXPECT_EQ(failureOf([&] { device.buildTable(); }), "MM_CMD_ENTRY: EFAULT: Bad address");
}

TEST(ClientCodes, ACodeHasTheNameOfItsSide)
{
    EXPECT_EQ(velmora::codeName(EASSERT), "EASSERT");
    EXPECT_EQ(velmora::codeName(ESEGMENT), "ESEGMENT"); // 22, EINVAL's number
    EXPECT_EQ(velmora::codeName(-EINVAL), "EINVAL");
    EXPECT_EQ(velmora::codeName(24), "24");
    EXPECT_EQ(velmora::codeName(-4000), "-4000");
    EXPECT_STREQ(velmora::Error("MM_CMD_FREE", 24).what(), "MM_CMD_FREE: the manager answered 24");
}

TEST_F(Client, ACommandThatStopsTheControllerIsReportedByName)
{
    velmora::Device device(sim::openDevice());
    try {
        device.fill(0xA4000000, 0, 1);
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(),
                     "the simulated controller stopped: ioctl MM_CMD_MEMSET touched 0xa4000000, which does not exist");
    }
}

TEST_F(Client, AMissingNodeIsASystemError)
{
    EXPECT_THROW(velmora::openNode("/nonexistent/node"), std::system_error);
}

TEST(ControllerBoot, AnAreaThatCannotBeManagedIsRefused)
{
    EXPECT_THROW(sim::bootController(0x94000000, 0x9E000000), velmora::Error);
}

} // namespace
} // namespace velmora::test
