// What job handling does with a document, however the other two parties run: beside it in threads, or in processes.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <vector>

#include "parties.hpp"

namespace printjob {

// What is to be printed.
struct Order {
    std::vector<std::filesystem::path> rasters; // the pages, in order
    unsigned copies = 1;
    std::filesystem::path output;
    Layout layout = {}; // of the memory

    // Where a page of a copy goes; both are counted from 1.
    std::filesystem::path file(unsigned copy, unsigned page) const;
};

// The job from the first band to the last copy. Pages stay in memory until all copies are out.
class Job
{
public:
    // Starts the manager.
    Job(std::unique_ptr<velmora::Channel> channel, Order order);
    virtual ~Job() = default;

    // Stores all pages and writes all copies; throws what stopped it. The other parties have ended when it returns.
    virtual void run() = 0;

    void giveBack();
    bool allIsFree() { return handler_.segmentsAreFree() && handler_.heapRoom() == heapRoom_; }
    void display() { handler_.display(); }
    std::uint64_t peakSegment() const { return peakSegment_; }
    std::uint64_t peakHeap() const { return peakHeap_; }

protected:
    // Empties the copies' folders and writes the job ticket.
    void begin();

    StoredPage& newPage();
    void pageIsStored(const StoredPage& page); // tells the user
    void pageIsWritten(unsigned copy, unsigned page);

    Order order_;
    Layout layout_;
    JobHandler handler_;
    std::vector<StoredPage> stored_; // reserved to its full size: pages stay where they are

private:
    std::uint64_t heapRoom_ = 0; // before anything was stored
    std::uint64_t peakSegment_ = 0;
    std::uint64_t peakHeap_ = 0;
};

} // namespace printjob
