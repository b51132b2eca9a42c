// A party of the print job dies at any of its commands, before the manager has heard of it and after it was done; the others collect what
// it held. Afterwards every block is free, and the job is printed again.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <type_traits>

#include "controller/device.h"
#include "examples/document.hpp"
#include "examples/parties.hpp"
#include "host/machine.h"
#include "kernel/mm/mm/MM_Core.h"

namespace velmora::test {
namespace {

namespace fs = std::filesystem;
using namespace printjob;

struct Death {
};

enum class Party { JobHandling, RasterProcessor, CollationCopy };

// Where a party ends: at which of its commands and mappings, counted from 1, and whether that one is still done.
struct End {
    Party party;
    unsigned command;
    bool afterwards;
};

// A descriptor of a process that dies.
class MortalChannel : public Channel
{
public:
    MortalChannel(unsigned dies, bool afterwards) : channel_(sim::openDevice()), left_(dies), afterwards_(afterwards) {}

    int command(std::uint32_t number, void* record, std::size_t bytes) override
    {
        return live([&] { return channel_->command(number, record, bytes); });
    }
    void* map(TAddr address, std::size_t bytes, Caching caching) override
    {
        return live([&] { return channel_->map(address, bytes, caching); });
    }
    void unmap(void* start, std::size_t bytes) override { channel_->unmap(start, bytes); }

private:
    template <class Do> std::invoke_result_t<Do> live(Do what)
    {
        const bool last = left_ != 0 && --left_ == 0;
        if (last && !afterwards_)
            throw Death();
        const auto result = what();
        if (last)
            throw Death();
        return result;
    }

    std::unique_ptr<Channel> channel_;
    unsigned left_; // 0: it lives
    bool afterwards_;
};

class Crash : public ::testing::Test
{
protected:
    Crash()
    {
        char name[] = "/tmp/velmora-crash-XXXXXX";
        folder_ = mkdtemp(name);
        for (unsigned page = 1; page <= kPages; ++page)
            drawPage(page);
    }
    ~Crash() override { fs::remove_all(folder_); }

    static constexpr unsigned kPages = 4;

    fs::path drawn(unsigned page) const { return folder_ / ("page-" + std::to_string(page) + ".ppm"); }

    void drawPage(unsigned number) const
    {
        constexpr unsigned width = 200, height = 150; // 90,000 bytes: three bands, the segment holds two pages
        std::ofstream stream(drawn(number), std::ios::binary);
        stream << "P6\n"
               << width << " " << height << "\n255\n"
               << std::string(width * height * 3, static_cast<char>(number));
    }

    static std::unique_ptr<Channel> open(Party party, const std::optional<End>& end)
    {
        const bool dies = end && end->party == party;
        return std::make_unique<MortalChannel>(dies ? end->command : 0, dies && end->afterwards);
    }

    // One job; what the pages hold is noted as far as job handling has heard of it: a page's bands when all are there.
    void print(JobHandler& handler, std::vector<StoredPage>& pages, const std::optional<End>& end)
    {
        handler.start();
        handler.writeTicket(1, kPages);
        RasterProcessor rasters(open(Party::RasterProcessor, end), layout_, handler.pageSegment());
        CollationCopy collation(open(Party::CollationCopy, end), handler.ticket());
        EXPECT_EQ(collation.copies(), 1U);
        for (unsigned number = 1; number <= kPages; ++number) {
            StoredPage page = pages.emplace_back(StoredPage{number, ownerOfPage(number), {}, {}});
            rasters.store(drawn(number), page);
            pages.back() = page;
            heapBands_ += page.heapBands();
        }
        for (const StoredPage& page : pages) {
            collation.write(page, folder_ / "copy.ppm");
            EXPECT_TRUE(sameBytes(drawn(page.number), folder_ / "copy.ppm"));
        }
        handler.giveBack(pages);
        pages.clear();
    }

    // True when the party died, false when the job has no such command.
    bool printWith(const End& end)
    {
        auto handler = std::make_unique<JobHandler>(open(Party::JobHandling, end), layout_);
        std::vector<StoredPage> pages;
        bool died = false;
        try {
            print(*handler, pages, end);
        } catch (const Death&) {
            died = true;
        }
        if (end.party == Party::JobHandling) { // the others end; somebody starts job handling again
            handler.reset();
            handler = std::make_unique<JobHandler>(open(Party::JobHandling, std::nullopt), layout_);
            handler->start();
        } else if (died) {
            handler->giveBack(pages);
            pages.clear();
        }
        expectAllFree();
        printAgain(*handler);
        return died;
    }

    void printAgain(JobHandler& handler)
    {
        std::vector<StoredPage> pages;
        print(handler, pages, std::nullopt);
        expectAllFree();
    }

    static void expectAllFree()
    {
        for (U32 handle = 0; handle < MAX_SEGTABLE_SIZE; ++handle) {
            const TMMSegInfo& segment = stSegTable[handle];
            EXPECT_EQ(segment.ulTotalFreeBlkNum, segment.ulTotalBlkNum) << handle;
            EXPECT_EQ(segment.ulTotalAllocBlkNum, 0U) << handle;
        }
    }

    // Dies at each command there is; how many those are.
    unsigned killAtEach(Party party, bool afterwards)
    {
        sim::bootController();
        unsigned command = 1;
        while (!HasFailure()) {
            SCOPED_TRACE("command " + std::to_string(command) + (afterwards ? ", done" : ", not done"));
            if (!printWith({party, command, afterwards}))
                break;
            ++command;
        }
        return command - 1;
    }

    Layout layout_{.pageSegmentBytes = 200 << 10, .blockBytes = 4096, .heapBlockBytes = 8192, .bandBytes = 32 << 10};
    fs::path folder_;
    unsigned heapBands_ = 0; // of all the jobs
};

TEST_F(Crash, ARasterProcessorMayDieAtAnyCommand)
{
    // Twelve bands: is there room, allocate, map.
    EXPECT_EQ(killAtEach(Party::RasterProcessor, false), 36U);
    EXPECT_EQ(killAtEach(Party::RasterProcessor, true), 36U);
    EXPECT_GT(heapBands_, 0U);
}

TEST_F(Crash, ACollationCopyMayDieAtAnyCommand)
{
    // The ticket and twelve bands are mapped.
    EXPECT_EQ(killAtEach(Party::CollationCopy, false), 13U);
    EXPECT_EQ(killAtEach(Party::CollationCopy, true), 13U);
}

TEST_F(Crash, JobHandlingMayDieAtAnyCommand)
{
    // Table, start, three segments; a ticket and its mapping; two clean-ups for each of four pages, the ticket.
    const unsigned commands = killAtEach(Party::JobHandling, false);
    EXPECT_GE(commands, 16U);
    EXPECT_EQ(killAtEach(Party::JobHandling, true), commands);
}

} // namespace
} // namespace velmora::test
