// "velmora-mm verify" on areas that are whole, and on one fault at a time: the rule that is named, and where.
#include <gtest/gtest.h>

#include <cstring>
#include <ostream>
#include <sstream>

#include "controller/device.h"
#include "host/machine.h"
#include "tools/commands.hpp"
#include "tools/verify_area.hpp"
#include "tools/verify_segment.hpp"

namespace velmora::tools {

void PrintTo(const Finding& finding, std::ostream* out)
{
    *out << finding.subject.segment << " 0x" << std::hex << finding.address << " " << nameOf(finding.rule) << ": "
         << finding.what;
}

void PrintTo(const Unchecked& unchecked, std::ostream* out)
{
    *out << unchecked.subject.segment << ", " << unchecked.part << ": " << unchecked.why;
}

namespace {

using Findings = std::vector<Finding>;

class VerifyTest : public ::testing::Test
{
protected:
    VerifyTest()
    {
        device.buildTable();
        device.startLibrary(MM_SM_BKUP_OK);
    }

    std::uint32_t create(const SegmentRequest& request) { return device.createSegment(request).hulHandle; }

    MM_TAddr allocateAndWrite(std::uint32_t handle, std::uint32_t bytes, std::uint8_t owner = 0)
    {
        const MM_TAddr address = device.allocate(handle, bytes, owner).value();
        device.fill(address, 0x5A, bytes);
        return address;
    }

    void store(MM_TAddr address, std::uint32_t word)
    {
        std::memcpy(device.map(address, sizeof word).bytes().data(), &word, sizeof word);
    }

    Findings findings(std::uint32_t handle) { return checkSegment(device, handle).findings; }
    Findings areaFindings() { return checkArea(device, log).findings; }

    // Eight blocks from 0x95312000; free ones at 0, 2 and 5 to 6.
    std::uint32_t threeRuns()
    {
        const std::uint32_t handle = create({.name = "BAND", .bytes = 0x8000, .blockBytes = 0x1000});
        allocateAndWrite(handle, 0x1000);
        const MM_TAddr upper = allocateAndWrite(handle, 0x2000);
        allocateAndWrite(handle, 0x2000);
        const MM_TAddr lower = allocateAndWrite(handle, 0x1000);
        allocateAndWrite(handle, 0x1000);
        device.release(handle, upper, 0x2000);
        device.release(handle, lower, 0x1000);
        return handle;
    }

    const std::vector<std::string> log = {"bigphysares : 0x95100000 ~ 0x9df00000\n"};
    Device device = [] {
        sim::bootController();
        return Device(sim::openDevice());
    }();
};

TEST_F(VerifyTest, AWholeListIsFollowedAndNothingIsFound)
{
    const Report report = checkSegment(device, threeRuns());
    EXPECT_EQ(report.findings, Findings());
    EXPECT_EQ(report.unchecked, std::vector<Unchecked>());
    EXPECT_EQ(report.segments, 1U);
    EXPECT_EQ(report.runs, 3U);
    EXPECT_EQ(report.maps, 0U);
}

TEST_F(VerifyTest, OneBrokenLinkIsNamedWithItsRunAlsoWithoutAMap)
{
    const std::uint32_t handle = threeRuns();
    const Subject band{"BAND", handle};
    const auto broken = [&](MM_TAddr field, std::uint32_t word) {
        std::uint32_t before;
        std::memcpy(&before, device.map(field, sizeof before).bytes().data(), sizeof before);
        store(field, word);
        Findings found = findings(handle);
        store(field, before);
        return found;
    };
    EXPECT_EQ(broken(0x95312000, 0),
              (Findings{{band, 0x95312000, Rule::RunLinked, "the run's link forward is 0, and should be 0x95314000"}}));
    EXPECT_EQ(broken(0x95314000, 0x95314000), (Findings{{band, 0x95314000, Rule::RunOrder,
                                                         "the run's link forward is 0x95314000, and should be "
                                                         "0x95317000"}}));
    EXPECT_EQ(broken(0x95314004, 0x10), (Findings{{band, 0x95314000, Rule::RunInside,
                                                   "the run's link back is 0x00000010, and should be 0x95312000"}}));
    EXPECT_EQ(broken(0x95312004, 0x95317000),
              (Findings{{band, 0x95312000, Rule::RunOrder, "the run's link back is 0x95317000, and should be 0"}}));
    EXPECT_EQ(broken(0x95317000, 0x95318000),
              (Findings{{band, 0x95317000, Rule::RunLinked, "the run's link forward is 0x95318000, and should be 0"}}));
    EXPECT_EQ(broken(0x95314008, 3),
              (Findings{{band, 0x95314000, Rule::RunMerged, "the run's number of blocks is 3, and should be 1"}}));
    EXPECT_EQ(broken(0x95314008, 5),
              (Findings{{band, 0x95314000, Rule::RunOrder, "the run's number of blocks is 5, and should be 1"}}));
    EXPECT_EQ(broken(0x95317008, 4),
              (Findings{{band, 0x95317000, Rule::RunInside, "the run's number of blocks is 4, and should be 2"}}));
    // Now the run below could have one more just as well: that something is wrong is all that can be said.
    EXPECT_EQ(broken(0x95317008, 1), (Findings{{band, 0x95312000, Rule::RunList,
                                                "no whole list of free runs with 4 blocks, and 2 in the longest, is in "
                                                "the segment"}}));
    EXPECT_EQ(findings(handle), Findings());
}

TEST_F(VerifyTest, AListThatIsGoneIsFound)
{
    const std::uint32_t handle = threeRuns();
    for (const MM_TAddr run : {0x95312000, 0x95314000, 0x95317000})
        device.fill(run, 0xFF, 12);
    EXPECT_EQ(findings(handle), (Findings{{{"BAND", handle},
                                           0x95312000,
                                           Rule::RunList,
                                           "no whole list of free runs with 4 blocks, and 2 in the longest, is in the "
                                           "segment"}}));
}

// 17 blocks from 0x95313000; the map's last byte is at 0x95312FFF.
TEST_F(VerifyTest, TheMapIsComparedWithTheListAndWhatIsNoBlocksWithZero)
{
    const std::uint32_t handle = create({.name = "PAGE", .bytes = 0x12000, .blockBytes = 0x1000, .mapBits = 8});
    const Subject page{"PAGE", handle};
    allocateAndWrite(handle, 0x2000, 3); // the last two
    EXPECT_EQ(checkSegment(device, handle).maps, 1U);
    EXPECT_EQ(findings(handle), Findings());
    device.fill(0x95312FFD, 9, 1);
    EXPECT_EQ(findings(handle),
              (Findings{{page, 0x95321000, Rule::MapFree, "1 free block with owner 9 in the owner map"}}));
    device.fill(0x95312FFD, 0, 1);
    device.fill(0x95312FFE, 0, 1);
    EXPECT_EQ(findings(handle), (Findings{{page, 0x95322000, Rule::MapOwner, "1 allocated block without an owner"}}));
    device.fill(0x95312FFE, 3, 1);
    device.fill(0x95312000, 0x20, 1);
    EXPECT_EQ(findings(handle), (Findings{{page, 0x95312000, Rule::MapUnused,
                                           "0x20 stands in bits of the owner map that are no block's"}}));
    device.fill(0x95312000, 0, 1);
    store(0x95313000, 0xFFFFFFFF);
    EXPECT_EQ(findings(handle),
              (Findings{{page, 0x95313000, Rule::RunInside, "the run's link forward is 0xffffffff, and should be 0"}}));
}

TEST_F(VerifyTest, HeadersThatTookTurnsAreUncheckedAndNoFinding)
{
    const std::uint32_t handle = create({.name = "TURN", .bytes = 0x8000, .blockBytes = 0x1000});
    const MM_TAddr upper = device.allocate(handle, 0x4000).value();
    device.allocate(handle, 0x4000);
    device.release(handle, upper, 0x4000);
    const Report report = checkSegment(device, handle);
    EXPECT_EQ(report.findings, Findings());
    EXPECT_EQ(report.unchecked,
              (std::vector<Unchecked>{{{"TURN", handle},
                                       "list of free runs",
                                       "headers of earlier free runs, which nobody wrote over, look like another whole "
                                       "list"}}));
}

TEST_F(VerifyTest, AReleaseOfMoreThanWasAllocatedShowsInTheCounters)
{
    const std::uint32_t handle = create({.name = "BAND", .bytes = 0x8000, .blockBytes = 0x1000, .locked = false});
    const MM_TAddr last = allocateAndWrite(handle, 0x1000);
    device.release(handle, last, 0x3000);
    EXPECT_FALSE(findings(handle).empty());
}

TEST_F(VerifyTest, FreeMemoryIsLinkedBetweenTheSegments)
{
    create({.name = "FRST", .bytes = 0x8000, .blockBytes = 0x1000});
    create({.name = "ALGN", .bytes = 0x8000, .blockBytes = 0x10000, .type = MM_FLOATALIGN}); // 0x95320000
    create({.name = "LAST", .bytes = 0x4000, .blockBytes = 0x1000});                         // 0x9531A000
    EXPECT_EQ(areaFindings(), Findings());
    EXPECT_EQ(checkArea(device, log).memory, 2U); // 0x9531E000 and 0x95328000
    EXPECT_EQ(checkArea(device, {}).memory, 2U);
    store(0x9531E000, 0x95329000);
    EXPECT_EQ(
        areaFindings(),
        (Findings{{{}, 0x9531E000, Rule::MemoryLinked, "the link forward is 0x95329000, and should be 0x95328000"}}));
    store(0x9531E000, 0x95328000);
    store(0x9531E008, 0x2001);
    EXPECT_EQ(areaFindings(),
              (Findings{{{}, 0x9531E000, Rule::MemorySize, "the stretch has 8193 bytes, and should have 8192"}}));
    store(0x9531E008, 0x2000);
    store(0x95328008, 0);
    EXPECT_EQ(areaFindings(),
              (Findings{{{}, 0x95328000, Rule::MemorySize, "the stretch has 0 bytes, and should have 146636800"}}));
}

TEST_F(VerifyTest, TheHeapIsCheckedAsFarAsItsDisplayGoesAndElseSaidNotToBe)
{
    create({.name = "BAND", .bytes = 0x8000, .blockBytes = 0x1000});
    const std::uint32_t heap = create({.name = "HEAP", .bytes = 0, .blockBytes = 0x1000});
    ASSERT_EQ(heap, std::uint32_t(MM_HEAPHANDLE));
    const MM_TAddr first = allocateAndWrite(heap, 0x1000);
    allocateAndWrite(heap, 0x1000);
    device.release(heap, first, 0x1000);
    const Report without = checkArea(device, log);
    EXPECT_EQ(without.findings, Findings());
    ASSERT_EQ(without.unchecked.size(), 1U);
    EXPECT_EQ(without.unchecked[0].part, "everything");
    sim::machine().takeLog();
    device.display(MM_HEAPHANDLE);
    std::vector<std::string> lines = sim::machine().takeLog();
    lines.push_back(log.front());
    const Report with = checkArea(device, lines);
    EXPECT_EQ(with.findings, Findings());
    EXPECT_EQ(with.runs, 2U);
    ASSERT_EQ(with.unchecked.size(), 1U);
    EXPECT_EQ(with.unchecked[0].part, "owner map");
}

TEST_F(VerifyTest, TheCommandsStatusSaysWhetherSomethingIsBroken)
{
    std::ostringstream out, errors;
    EXPECT_EQ(verify({"--device", "unix:/nowhere/mm.sock"}, out, errors), 3);
    EXPECT_EQ(verify({"--unknown"}, out, errors), 2);
}

} // namespace
} // namespace velmora::tools
