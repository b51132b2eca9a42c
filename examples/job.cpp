#include "job.hpp"

#include <algorithm>
#include <cstdio>

namespace printjob {

std::filesystem::path Order::file(unsigned copy, unsigned page) const
{
    return output / ("copy-" + std::to_string(copy)) / rasters[page - 1].filename();
}

Job::Job(std::unique_ptr<velmora::Channel> channel, Order order)
    : order_(std::move(order)), layout_(order_.layout), handler_(std::move(channel), layout_)
{
    handler_.start();
    heapRoom_ = handler_.heapRoom();
}

void Job::giveBack()
{
    handler_.giveBack(stored_);
    stored_.clear();
}

void Job::begin()
{
    for (unsigned copy = 1; copy <= order_.copies; ++copy) {
        const std::filesystem::path folder = order_.file(copy, 1).parent_path();
        std::filesystem::remove_all(folder);
        std::filesystem::create_directories(folder);
    }
    stored_.reserve(order_.rasters.size());
    peakSegment_ = peakHeap_ = 0;
    handler_.writeTicket(order_.copies, static_cast<unsigned>(order_.rasters.size()));
}

StoredPage& Job::newPage()
{
    const auto number = static_cast<unsigned>(stored_.size() + 1);
    return stored_.emplace_back(StoredPage{number, ownerOfPage(number), {}, {}});
}

void Job::pageIsStored(const StoredPage& page)
{
    // What overflows has as many of the heap's blocks as it would have had of the segment's.
    const std::uint32_t unit = layout_.overflows ? layout_.blockBytes : layout_.heapBlockBytes;
    for (const Band& band : page.bands)
        if (band.inHeap)
            peakHeap_ += (band.bytes + unit - 1) / unit * layout_.heapBlockBytes;
    peakSegment_ = std::max(peakSegment_, handler_.pageSegmentUse());
    std::printf("  page %3u/%zu  %ux%u  %5.1f MiB in %zu bands, owner 0x%02x%s\n", page.number, order_.rasters.size(),
                page.header.width, page.header.height, static_cast<double>(page.header.imageBytes()) / (1 << 20),
                page.bands.size(), page.owner,
                page.heapBands() > 0 ? (", " + std::to_string(page.heapBands()) + " of them from the heap").c_str()
                                     : "");
    std::fflush(stdout);
}

void Job::pageIsWritten(unsigned copy, unsigned page)
{
    if (page == order_.rasters.size())
        std::printf("  copy %u: %zu pages\n", copy, order_.rasters.size());
}

} // namespace printjob
