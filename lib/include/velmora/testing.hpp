// The test kit for programs that use the memory manager: a GoogleTest fixture with a controller of its own for each test.
//
//   #include <velmora/testing.hpp>
//
//   using MyTest = velmora::testing::ControllerTest;
//
//   TEST_F(MyTest, TheSecondPageFindsNoRoom)
//   {
//       velmora::Segment pages = velmora::Segment::create(device(), {.name = "PAGE", .bytes = 1 << 20, .ownerBits = 8});
//       failNth(MM_CMD_MALLOC, 2, MM_EINVASEGSIZE);
//       EXPECT_FALSE(storePages(pages, 2));
//   }   // fails if a block is still allocated, and says whose
//
// The fixture starts velmora-controller, opens its device and starts the library; $VELMORA_MM_DEVICE names it meanwhile, so
// that code which opens the device by itself, and programs that the test starts, meet the same controller. Needs GoogleTest,
// which is the program's own: link velmora::testing and gtest. Threads: the fixture is for the test's own thread.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <velmora/controller.hpp>
#include <velmora/device.hpp>

// The test kit.
namespace velmora::testing {

// Takes a segment's memory away, but for what the test wants to be left, until its end.
class MemoryPressure
{
public:
    // Allocates until no more than `left` bytes are free, in runs as long as they come; the longest run is left for last.
    // owner: one that the test's program does not collect.
    MemoryPressure(const Segment& segment, std::uint32_t left, Owner owner)
    {
        for (;;) {
            const Fragmentation now = fragmentation(segment);
            if (now.freeBytes <= left || now.longestBytes == 0)
                return;
            const std::uint32_t spare = now.freeBytes - left;
            auto block = segment.allocate(spare < now.longestBytes ? spare : now.longestBytes, owner);
            if (!block)
                return; // somebody else was faster
            taken_.push_back(std::move(*block));
        }
    }
    // Gives the memory back, in the order that a stack wants.
    ~MemoryPressure()
    {
        while (!taken_.empty())
            taken_.pop_back();
    }
    MemoryPressure(const MemoryPressure&) = delete;
    MemoryPressure& operator=(const MemoryPressure&) = delete;

private:
    std::vector<Block> taken_;
};

// What is allocated at this moment: one sentence for each run of an owner's blocks, for each segment that keeps no record of
// owners, and for each piece of the heap. The heap's come from the kernel log, which this empties.
inline std::vector<std::string> allocatedBlocks(Device& device, sim::Controller& controller)
{
    std::vector<std::string> sentences;
    const auto say = [&](auto... arguments) {
        char text[200];
        std::snprintf(text, sizeof text, arguments...);
        sentences.emplace_back(text);
    };
    for (const SegmentUsage& usage : segments(device)) {
        const char* const name = usage.name.c_str();
        std::uint32_t unrecorded = usage.blocks - usage.freeBlocks;
        if (unrecorded == 0)
            continue;
        std::error_code error;
        if (const auto segment = Segment::find(device, usage.name, error))
            for (const OwnedRun& run : ownedRuns(*segment, error)) {
                say("segment %s: owner %u holds %u blocks of %u bytes at 0x%08x", name,
                    static_cast<unsigned>(run.owner), run.blocks, usage.blockStride, run.start);
                unrecorded -= run.blocks < unrecorded ? run.blocks : unrecorded;
            }
        if (unrecorded != 0)
            say("segment %s: %u blocks of %u bytes are allocated for no owner", name, unrecorded, usage.blockStride);
    }
    controller.takeLog();
    device.display(MM_HEAPHANDLE);
    for (const HeapPiece& piece : heapPieces(controller.takeLog()))
        if (piece.freeBlocks != piece.blocks)
            say("the heap: %u blocks of %u bytes are allocated between 0x%08x and 0x%08x",
                piece.blocks - piece.freeBlocks, piece.blockBytes, piece.start, piece.end);
    return sentences;
}

// A test with a private controller. What derives from it may have segments and blocks as members: leaks are looked for after
// they are gone.
class ControllerTest : public ::testing::Test
{
protected:
    // Starts the controller and the library. options: of velmora-controller, RAM size and area for example.
    explicit ControllerTest(const sim::ControllerOptions& options = {})
        : before_(read("VELMORA_MM_DEVICE")), controller_(options), device_(controller_.open())
    {
        setenv("VELMORA_MM_DEVICE", controller_.device().c_str(), 1);
        startUp(device_);
        controller_.takeLog();
    }

    // Looks for leaks, and ends the controller.
    ~ControllerTest() override
    {
        if (before_)
            setenv("VELMORA_MM_DEVICE", before_->c_str(), 1);
        else
            unsetenv("VELMORA_MM_DEVICE");
        if (leaksAreAllowed_)
            return;
        if (controller_.process() < 0) {
            ADD_FAILURE() << "no leak could be looked for: the test ended the controller";
            return;
        }
        try {
            controller_.forgetFaults();
            for (const std::string& leak : allocatedBlocks(device_, controller_))
                ADD_FAILURE() << "leaked: " << leak;
        } catch (const std::exception& error) {
            ADD_FAILURE() << "no leak could be looked for: " << error.what();
        }
    }

    // The controller: its socket, its process, its end.
    sim::Controller& controller() { return controller_; }
    // Its device, opened.
    Device& device() { return device_; }
    // Another party's: the same device, opened once more.
    Device openAgain() const { return Device(controller_.open()); }

    // The nth call of a device command from now on, from 1 (0: each), is given the answer without reaching the manager: a
    // code of the manager (MM_EINVASEGSIZE: no room) or a negative kernel code.
    void failNth(std::uint32_t command, std::uint32_t nth, int answer) { controller_.failNth(command, nth, answer); }
    // The nth mapping from now on fails with a negative kernel code.
    void failNthMap(std::uint32_t nth, int answer) { controller_.failNthMap(nth, answer); }
    // The nth open from now on fails with a negative kernel code.
    void failNthOpen(std::uint32_t nth, int answer) { controller_.failNthOpen(nth, answer); }
    // What has not failed yet will not.
    void forgetFaults() { controller_.forgetFaults(); }

    // Kernel messages since the start of the test or the last call.
    std::vector<std::string> takeLog() { return controller_.takeLog(); }

    // What is allocated at this moment, in sentences.
    std::vector<std::string> leaks() { return allocatedBlocks(device_, controller_); }
    // For a test that leaves memory allocated, or ends the controller, on purpose.
    void allowLeaks() { leaksAreAllowed_ = true; }

private:
    static std::optional<std::string> read(const char* variable)
    {
        const char* const value = std::getenv(variable);
        return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
    }

    std::optional<std::string> before_;
    sim::Controller controller_;
    Device device_;
    bool leaksAreAllowed_ = false;
};

} // namespace velmora::testing
