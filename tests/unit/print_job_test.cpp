// The print job's parties: a small document, one that overflows into the heap, one that is too large.
#include <cstdlib>
#include <fstream>

#include "examples/document.hpp"
#include "examples/kernel_log.hpp"
#include "examples/parties.hpp"
#include "controller/device.h"
#include "support/manager_fixture.h"

namespace velmora::test {
namespace {

namespace fs = std::filesystem;
using namespace printjob;

class PrintJob : public ::testing::Test
{
protected:
    PrintJob()
    {
        char name[] = "/tmp/velmora-print-job-XXXXXX";
        folder_ = mkdtemp(name);
        boot();
    }
    ~PrintJob() override { fs::remove_all(folder_); }

    void boot()
    {
        handler_.reset();
        sim::bootController();
        handler_.emplace(sim::openDevice(), layout_);
        handler_->start();
    }

    // A page of noise.
    fs::path drawPage(unsigned number, unsigned width, unsigned height) const
    {
        fs::path file = folder_ / ("page-" + std::to_string(number) + ".ppm");
        std::ofstream stream(file, std::ios::binary);
        stream << "P6\n# noise\n" << width << " " << height << "\n255\n";
        U32 state = number;
        for (unsigned i = 0; i < width * height * 3; ++i) {
            state = state * 1664525 + 1013904223;
            stream.put(static_cast<char>(state >> 24));
        }
        return file;
    }

    StoredPage store(unsigned number, const fs::path& raster)
    {
        StoredPage page{number, ownerOfPage(number), {}, {}};
        RasterProcessor(sim::openDevice(), layout_, handler_->pageSegment()).store(raster, page);
        return page;
    }

    void printThreePages();

    static U32 blocksInUse(U32 handle) { return stSegTable[handle].ulTotalAllocBlkNum; }

    void expectAllFree()
    {
        EXPECT_TRUE(handler_->segmentsAreFree());
        for (const U32 handle : {U32(0), handler_->pageSegment(), U32(HEAPHANDLE)})
            EXPECT_EQ(blocksInUse(handle), 0u) << handle;
    }

    Layout layout_{.pageSegmentBytes = 1 << 20, .blockBytes = 4096, .heapBlockBytes = 8192, .bandBytes = 64 << 10};
    fs::path folder_;
    std::optional<JobHandler> handler_;
};

TEST_F(PrintJob, APageComesBackAsItWasDrawn)
{
    const fs::path raster = drawPage(1, 100, 70);
    const StoredPage page = store(1, raster);
    handler_->writeTicket(2, 1);
    CollationCopy collation(sim::openDevice(), handler_->ticket());
    EXPECT_EQ(collation.copies(), 2u);
    collation.write(page, folder_ / "copy.ppm");
    EXPECT_TRUE(sameBytes(raster, folder_ / "copy.ppm"));
    EXPECT_FALSE(sameBytes(raster, drawPage(2, 100, 70)));
    EXPECT_EQ(blocksInUse(handler_->pageSegment()), 6u); // 21000 bytes
    EXPECT_FALSE(handler_->segmentsAreFree());
    handler_->giveBack({page});
    expectAllFree();
}

// Three pages, of which the first fills the segment: they come back as they were drawn, and everything is free again.
void PrintJob::printThreePages()
{
    std::vector<StoredPage> pages;
    for (unsigned number = 1; number <= 3; ++number)
        pages.push_back(store(number, drawPage(number, 400, 500))); // 600,000 bytes each; the segment holds 1 MiB
    EXPECT_EQ(pages[0].heapBands(), 0u);
    EXPECT_GT(pages[1].heapBands(), 0u);
    EXPECT_GT(pages[2].heapBands(), 0u);
    EXPECT_GT(blocksInUse(HEAPHANDLE), 0u);

    CollationCopy collation(sim::openDevice(), 0x95102000);
    for (const StoredPage& page : pages) {
        collation.write(page, folder_ / "copy.ppm");
        EXPECT_TRUE(sameBytes(folder_ / ("page-" + std::to_string(page.number) + ".ppm"), folder_ / "copy.ppm"));
    }
    handler_->giveBack(pages);
    expectAllFree();
}

TEST_F(PrintJob, WhatDoesNotFitIntoTheSegmentIsThePagesInTheHeapToo)
{
    printThreePages();
    EXPECT_TRUE(machine().takeLog().size() < 10); // no line for each block
}

TEST_F(PrintJob, BandsThatOverflowByThemselvesAreGivenBackOneByOne)
{
    layout_.overflows = true;
    boot();
    printThreePages();
}

TEST_F(PrintJob, WhatARasterProcessorTookInTheHeapIsCollectedByThePagesOwner)
{
    struct Death {
    };
    const StoredPage first = store(1, drawPage(1, 400, 500)); // 600,000 bytes; the segment holds 1 MiB
    StoredPage lost{2, ownerOfPage(2), {}, {}};
    const auto die = [&](const Band& band) {
        if (band.inHeap)
            throw Death();
    };
    EXPECT_THROW(
        RasterProcessor(sim::openDevice(), layout_, handler_->pageSegment()).store(drawPage(2, 400, 500), lost, die),
        Death);
    EXPECT_EQ(blocksInUse(HEAPHANDLE), 8u); // of 64 KiB
    handler_->giveBack({first, StoredPage{2, ownerOfPage(2), {}, {}}});
    expectAllFree();
}

TEST_F(PrintJob, WhatARasterProcessorTookAndDidNotReportIsCollectedByThePagesOwner)
{
    struct Death {
    };
    const fs::path raster = drawPage(2, 400, 200); // 240,000 bytes: four bands, 59 blocks
    const StoredPage kept = store(1, drawPage(1, 100, 70));
    StoredPage half{2, ownerOfPage(2), {}, {}};
    unsigned bands = 0;
    const auto die = [&](const Band&) {
        if (++bands == 2)
            throw Death();
    };
    EXPECT_THROW(RasterProcessor(sim::openDevice(), layout_, handler_->pageSegment()).store(raster, half, die), Death);
    EXPECT_EQ(blocksInUse(handler_->pageSegment()), 6u + 32u);

    const StoredPage asItWasNoted{2, ownerOfPage(2), {}, {}};
    handler_->giveBack({asItWasNoted});
    EXPECT_EQ(blocksInUse(handler_->pageSegment()), 6u); // another page's stay
    handler_->giveBack({kept});
    expectAllFree();
}

TEST_F(PrintJob, ADocumentTooLargeEndsInAClearMessageWithEverythingGivenBack)
{
    // The segment holds 255 blocks of 4 KiB, the heap about 17,600 of 8 KiB: 144 MB. Three pages have 48 MB each.
    layout_.bandBytes = 32 << 20;
    const fs::path raster = drawPage(1, 4000, 4000);
    std::vector<StoredPage> pages;
    std::string message;
    try {
        for (unsigned number = 1; number <= 4; ++number) {
            StoredPage& page = pages.emplace_back(StoredPage{number, ownerOfPage(number), {}, {}});
            RasterProcessor(sim::openDevice(), layout_, handler_->pageSegment()).store(raster, page);
        }
    } catch (const OutOfMemory& error) {
        message = error.what();
    }
    EXPECT_EQ(message,
              "the document does not fit into the controller's memory: page 4 needs 46 MiB, and neither the page "
              "segment nor the heap has room for its next band");
    handler_->giveBack(pages);
    expectAllFree();
}

TEST_F(PrintJob, OwnersOfPagesDoNotContainEachOther)
{
    for (unsigned a = 1; a <= 70; ++a)
        for (unsigned b = 1; b <= 70; ++b)
            EXPECT_EQ((ownerOfPage(a) & ownerOfPage(b)) == ownerOfPage(a), a == b) << a << " " << b;
    EXPECT_EQ(ownerOfPage(71), ownerOfPage(1));
}

TEST_F(PrintJob, FilesThatAreNoRasterAreRefused)
{
    const auto file = folder_ / "bad.ppm";
    for (const char* const content : {"", "P3\n1 1\n255\n", "P6\n1", "P6\n99999999 1\n255\n", "JPEG"}) {
        std::ofstream(file) << content;
        EXPECT_THROW(RasterReader reader(file), std::runtime_error) << content;
    }
    std::ofstream(file) << "P6\n10 10\n255\nshort";
    StoredPage page{1, 15, {}, {}};
    EXPECT_THROW(RasterProcessor(sim::openDevice(), layout_, handler_->pageSegment()).store(file, page),
                 std::runtime_error);
    handler_->giveBack({page});
    expectAllFree();
}

TEST_F(PrintJob, TheHeapsRoomIsFoundByAsking)
{
    const std::uint64_t bytes = std::uint64_t(stSegTable[HEAPHANDLE].ulTotalBlkNum) * layout_.heapBlockBytes;
    machine().takeLog();
    EXPECT_EQ(handler_->heapRoom(), bytes);

    velmora::Device device(sim::openDevice());
    std::vector<TAddr> blocks;
    for (unsigned i = 0; i < 5; ++i)
        blocks.push_back(device.allocate(HEAPHANDLE, layout_.heapBlockBytes, 1).value());
    device.release(HEAPHANDLE, blocks[1], layout_.heapBlockBytes); // runs of one block, one block, and the rest
    device.release(HEAPHANDLE, blocks[3], layout_.heapBlockBytes);
    EXPECT_EQ(handler_->heapRoom(), bytes - 3 * layout_.heapBlockBytes);
    EXPECT_EQ(blocksInUse(HEAPHANDLE), 3u);

    ASSERT_TRUE(device.allocate(HEAPHANDLE, static_cast<U32>(bytes) - 5 * layout_.heapBlockBytes, 1));
    for (unsigned i = 0; i < 2; ++i)
        ASSERT_TRUE(device.allocate(HEAPHANDLE, layout_.heapBlockBytes, 1));
    EXPECT_EQ(handler_->heapRoom(), 0u);
    EXPECT_TRUE(machine().takeLog().empty()); // a real controller's log is not filled with questions
}

TEST(PrintJobLog, WhatTheKernelPutsInFrontOfAMessageIsNotShown)
{
    const std::string row =
        " RIP0   5-    ff000-     1000-       ff-        3-       fc-       fc- 1- 95313000- 95412000";
    EXPECT_EQ(withoutPrefix("<4>[   12.345678] " + row), row);
    EXPECT_EQ(withoutPrefix("<4>[   12.345678][   T77] " + row), row);
    EXPECT_EQ(withoutPrefix("<12>[12345.345678][    C0] " + row), row);
    EXPECT_EQ(withoutPrefix("<4>" + row), row);
    EXPECT_EQ(withoutPrefix("[   12.345678] " + row), row);
    EXPECT_EQ(withoutPrefix(row), row);
    EXPECT_EQ(withoutPrefix("<4>[S_ID][Hd][Seg Size]"), "[S_ID][Hd][Seg Size]");
    EXPECT_EQ(withoutPrefix("<4>a <4>[    1.000000] b"), "a <4>[    1.000000] b");
    EXPECT_EQ(withoutPrefix("<4>"), "");
}

TEST(PrintJobLog, OnlyWhatWasAddedIsNew)
{
    using Lines = std::vector<std::string>;
    EXPECT_EQ(addedLines({}, {"a", "b"}), (Lines{"a", "b"}));
    EXPECT_EQ(addedLines({"a", "b"}, {"a", "b"}), Lines{});
    EXPECT_EQ(addedLines({"a", "b"}, {"a", "b", "c"}), Lines{"c"});
    // without times, lines repeat
    EXPECT_EQ(addedLines({"a", "=", "="}, {"a", "=", "=", "x", "="}), (Lines{"x", "="}));
    // the oldest were lost
    EXPECT_EQ(addedLines({"a", "b", "c"}, {"c", "d"}), Lines{"d"});
    EXPECT_EQ(addedLines({"a", "b", "c"}, {"d", "e"}), (Lines{"d", "e"}));
    EXPECT_EQ(addedLines({"a", "b"}, {"b"}), Lines{});
}

} // namespace
} // namespace velmora::test
