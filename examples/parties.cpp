#include "parties.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <cstring>
#include <set>
#include <thread>

namespace printjob {

namespace {

// The job ticket as it lies in "$JCB".
struct Ticket {
    char title[8];
    std::uint32_t copies;
    std::uint32_t pages;
};

constexpr std::uint32_t kTicketBytes = 1024;
constexpr std::uint8_t kOwnerBits = 8;
constexpr std::uint8_t kNobody = 0;

// How long a new job handling waits for the parties of one that died: they store or write the page that they are at.
constexpr std::chrono::milliseconds kBetweenStarts{100};
constexpr unsigned kMostStarts = 100;

std::string megabytes(std::uint64_t bytes)
{
    return std::to_string((bytes + (1 << 19)) >> 20) + " MiB";
}

} // namespace

std::uint32_t StoredPage::heapBands() const
{
    return static_cast<std::uint32_t>(
        std::count_if(bands.begin(), bands.end(), [](const Band& band) { return band.inHeap; }));
}

std::uint8_t ownerOfPage(unsigned number)
{
    static const std::vector<std::uint8_t> owners = [] {
        std::vector<std::uint8_t> ids;
        for (unsigned id = 1; id < 255; ++id)
            if (std::popcount(id) == 4)
                ids.push_back(static_cast<std::uint8_t>(id));
        return ids;
    }();
    return owners[(number - 1) % owners.size()];
}

JobHandler::JobHandler(std::unique_ptr<velmora::Channel> channel, const Layout& layout)
    : device_(std::move(channel)), layout_(layout)
{
}

void JobHandler::startLibrary()
{
    for (unsigned starts = 1;; ++starts) {
        try {
            device_.buildTable();
            return device_.startLibrary(SM_BKUP_OK);
        } catch (const velmora::Error& refused) {
            if (refused.result() != MM_EASSERT || starts == kMostStarts)
                throw;
        }
        if (starts > 1)
            std::this_thread::sleep_for(kBetweenStarts);
        giveBackWhatIsLeft();
    }
}

// Nothing need be known of it: every owner has one of eight bits, and the ticket is the only block of "$JCB", its last one.
void JobHandler::giveBackWhatIsLeft()
{
    const auto collectAll = [&](std::uint32_t handle) {
        for (unsigned bit = 0; bit < kOwnerBits; ++bit)
            device_.collectGarbage(handle, static_cast<std::uint8_t>(1U << bit));
    };
    for (std::uint8_t handle = 0; handle < HEAPHANDLE; ++handle) {
        const auto segment = device_.segment(handle);
        if (!segment || segment->ulTotalAllocBlkNum == 0)
            continue;
        if (segment->stInfoFromApp.ubMap == kOwnerBits)
            collectAll(handle);
        else
            device_.release(handle, segment->pubEndAddr - kTicketBytes, kTicketBytes);
    }
    collectAll(HEAPHANDLE);
}

void JobHandler::start()
{
    startLibrary();
    ticketSegment_ = device_.createSegment({.name = "$JCB", .blockBytes = kTicketBytes, .type = FIXED}).hulHandle;
    pageSegment_ = device_
                       .createSegment({.name = "PAGE",
                                       .bytes = layout_.pageSegmentBytes,
                                       .blockBytes = layout_.blockBytes,
                                       .mapBits = kOwnerBits,
                                       .type = FLOATALIGN, // bands begin at page boundaries
                                       .overflowsToHeap = layout_.overflows})
                       .hulHandle;
    heapBytes_ = device_
                     .createSegment({.name = "HEAP",
                                     .bytes = 0,
                                     .blockBytes = layout_.heapBlockBytes,
                                     .mapBits = layout_.overflows ? std::uint8_t(0) : kOwnerBits})
                     .ulRetSegSize;
}

void JobHandler::writeTicket(unsigned copies, unsigned pages)
{
    const auto address = device_.allocate(ticketSegment_, kTicketBytes);
    if (!address)
        throw OutOfMemory("there is no room for the job ticket");
    ticket_ = *address;
    const Ticket ticket{"job 1", copies, pages};
    const velmora::Mapping view = device_.map(ticket_, sizeof ticket);
    std::memcpy(view.bytes().data(), &ticket, sizeof ticket);
}

std::uint64_t JobHandler::pageSegmentUse()
{
    const auto segment = device_.segment(static_cast<std::uint8_t>(pageSegment_));
    return segment ? std::uint64_t(segment->ulTotalAllocBlkNum) * layout_.blockBytes : 0;
}

bool JobHandler::segmentsAreFree()
{
    for (const std::uint32_t handle : {ticketSegment_, pageSegment_}) {
        const auto segment = device_.segment(static_cast<std::uint8_t>(handle));
        if (!segment || segment->ulTotalFreeBlkNum != segment->ulTotalBlkNum)
            return false;
    }
    return true;
}

std::uint64_t JobHandler::heapRoom()
{
    std::vector<Band> taken;
    std::uint64_t room = 0;
    std::uint32_t below = heapBytes_ / layout_.heapBlockBytes + 1;
    for (;;) {
        const Band band = takeLongestOfHeap(below);
        if (band.bytes == 0)
            break;
        taken.push_back(band);
        room += band.bytes;
        below = band.bytes / layout_.heapBlockBytes + 1; // none that is left is longer
    }
    for (const Band& band : taken)
        device_.release(HEAPHANDLE, band.address, band.bytes);
    return room;
}

// The longest stretch of fewer than so many blocks; 0 bytes when the heap is full.
Band JobHandler::takeLongestOfHeap(std::uint32_t blocksBelow)
{
    const auto allocate = [&](std::uint32_t blocks) {
        return device_.allocate(HEAPHANDLE, blocks * layout_.heapBlockBytes,
                                layout_.overflows ? kNobody : ownerOfPage(1));
    };
    std::uint32_t fits = 0;
    while (blocksBelow - fits > 1) {
        const std::uint32_t blocks = fits + (blocksBelow - fits) / 2;
        if (const auto address = allocate(blocks)) {
            device_.release(HEAPHANDLE, *address, blocks * layout_.heapBlockBytes);
            fits = blocks;
        } else {
            blocksBelow = blocks;
        }
    }
    if (fits == 0)
        return {0, 0, true};
    return {allocate(fits).value(), fits * layout_.heapBlockBytes, true};
}

void JobHandler::giveBack(const std::vector<StoredPage>& pages)
{
    std::set<std::uint8_t> owners;
    for (const StoredPage& page : pages) {
        owners.insert(page.owner);
        for (const Band& band : page.bands)
            if (band.inHeap && layout_.overflows)
                device_.release(pageSegment_, band.address, band.bytes); // an address in the heap goes to the heap
    }
    for (const std::uint8_t owner : owners) {
        device_.collectGarbage(pageSegment_, owner);
        if (!layout_.overflows)
            device_.collectGarbage(HEAPHANDLE, owner);
    }
    if (ticket_ != 0)
        device_.release(ticketSegment_, ticket_, kTicketBytes);
    ticket_ = 0;
}

RasterProcessor::RasterProcessor(std::unique_ptr<velmora::Channel> channel, const Layout& layout,
                                 std::uint32_t pageSegment)
    : device_(std::move(channel)), layout_(layout), pageSegment_(pageSegment)
{
}

bool RasterProcessor::segmentHasRoom(std::uint32_t bytes)
{
    const auto segment = device_.segment(static_cast<std::uint8_t>(pageSegment_));
    return segment && bytes <= std::uint64_t(segment->ulLargestBlkSize) * layout_.blockBytes;
}

Band RasterProcessor::allocateBand(const StoredPage& page, std::uint32_t bytes)
{
    const bool fromHeap = !layout_.overflows && !segmentHasRoom(bytes);
    const auto address = device_.allocate(fromHeap ? std::uint32_t(HEAPHANDLE) : pageSegment_, bytes, page.owner);
    if (!address)
        throw OutOfMemory("the document does not fit into the controller's memory: page " +
                          std::to_string(page.number) + " needs " + megabytes(page.header.imageBytes()) +
                          ", and neither the page segment nor the heap has room for its next band");
    return {*address, bytes, fromHeap || (layout_.overflows && !device_.contains(pageSegment_, *address))};
}

void RasterProcessor::store(const std::filesystem::path& raster, StoredPage& page,
                            const std::function<void(const Band&)>& taken)
{
    RasterReader reader(raster);
    page.header = reader.header();
    for (std::size_t left = page.header.imageBytes(); left > 0;) {
        const auto bytes = static_cast<std::uint32_t>(std::min<std::size_t>(left, layout_.bandBytes));
        const Band band = allocateBand(page, bytes);
        page.bands.push_back(band);
        taken(band);
        const velmora::Mapping view = device_.map(band.address, band.bytes);
        reader.read(view.bytes().data(), band.bytes);
        left -= bytes;
    }
}

CollationCopy::CollationCopy(std::unique_ptr<velmora::Channel> channel, TAddr ticket)
    : device_(std::move(channel)), ticket_(ticket)
{
}

unsigned CollationCopy::copies()
{
    Ticket ticket;
    const velmora::Mapping view = device_.map(ticket_, sizeof ticket);
    std::memcpy(&ticket, view.bytes().data(), sizeof ticket);
    return ticket.copies;
}

void CollationCopy::write(const StoredPage& page, const std::filesystem::path& file)
{
    std::ofstream stream(file, std::ios::binary);
    stream << page.header.text;
    for (const Band& band : page.bands) {
        const velmora::Mapping view = device_.map(band.address, band.bytes);
        stream.write(reinterpret_cast<const char*>(view.bytes().data()), static_cast<std::streamsize>(band.bytes));
    }
    stream.close();
    if (!stream)
        throw std::runtime_error("cannot write " + file.string());
}

} // namespace printjob
