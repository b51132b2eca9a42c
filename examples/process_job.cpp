#include "process_job.hpp"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <poll.h>
#include <system_error>

namespace printjob {

namespace {

constexpr unsigned kMostLosses = 3; // a job that loses more is given up

} // namespace

struct ProcessJob::Parties {
    Party rasters;
    Party collation;
    unsigned copies = 0;   // 0: collation copy has not read the ticket yet
    std::size_t ready = 0; // pages that are in memory
    std::size_t asked = 0; // pages of copies that collation copy was asked for, in the order of the copies
    std::size_t written = 0;
};

ProcessJob::ProcessJob(std::string device, const Order& order, std::chrono::seconds patience, std::optional<Loss> loss)
    : Job(velmora::openNode(device), order), device_(std::move(device)), patience_(patience), loss_(loss)
{
}

void ProcessJob::run()
{
    for (unsigned losses = 0;; ++losses) {
        try {
            return printOnce();
        } catch (const PartyLost& lost) {
            if (losses == kMostLosses)
                throw;
            collectAfter(lost);
        }
    }
}

void ProcessJob::printOnce()
{
    begin();
    Parties parties{
        .rasters = Party("raster processor", patience_,
                         [this](const Wire& wire) { processRasters(wire, device_, layout_, order_); }),
        .collation =
            Party("collation copy", patience_, [this](const Wire& wire) { writeCopies(wire, device_, order_); }),
    };
    try {
        work(parties);
    } catch (...) {
        noteLastBands(parties);
        throw;
    }
}

// What the raster processor has taken and this side has not read yet, or takes until it ends: bands that overflowed are
// nobody's but for these messages.
void ProcessJob::noteLastBands(Parties& parties)
{
    parties.rasters.hangUp();
    Message message;
    while (parties.rasters.receiveLast(message))
        if (message.kind == Kind::Band)
            stored_.back().bands.push_back(bandIn(message));
}

void ProcessJob::work(Parties& parties)
{
    parties.rasters.send({.kind = Kind::Begin, .number = handler_.pageSegment()});
    parties.collation.send({.kind = Kind::Begin, .address = handler_.ticket()});
    requestPage(parties);
    while (parties.copies == 0 || parties.written < parties.copies * order_.rasters.size()) {
        pollfd wires[] = {{parties.rasters.descriptor(), POLLIN, 0}, {parties.collation.descriptor(), POLLIN, 0}};
        const int heard = poll(wires, std::size(wires), static_cast<int>(patience_.count() * 1000));
        if (heard == 0)
            endSilence(parties);
        if (heard < 0 && errno == EINTR)
            continue;
        if (heard < 0)
            throw std::system_error(errno, std::generic_category(), "cannot wait for the parties");
        if (wires[0].revents != 0)
            hearRasters(parties);
        if (wires[1].revents != 0)
            hearCopies(parties);
        requestCopies(parties);
    }
}

void ProcessJob::endSilence(Parties& parties) const
{
    const bool rastersOwe = parties.ready < stored_.size();
    (rastersOwe ? parties.rasters : parties.collation).giveUp();
}

// Both have ended. What the raster processor took and had no time to report is its page's by the owner.
void ProcessJob::collectAfter(const PartyLost& lost)
{
    const double held = static_cast<double>(handler_.pageSegmentUse()) / (1 << 20);
    const std::size_t pages = stored_.size();
    giveBack();
    const bool allFree = allIsFree();
    std::printf("The %s: %.1f MiB of %zu pages collected by owner, %s; printing the job again\n", lost.what(), held,
                pages, allFree ? "all blocks are free" : "but a band that overflowed has no owner");
    if (!allFree)
        handler_.start(); // an overflow that nobody knows of: only a fresh start of the library gets it back
}

void ProcessJob::requestPage(Parties& parties)
{
    if (stored_.size() == order_.rasters.size())
        return;
    const StoredPage& page = newPage(); // noted first: the owner is known whatever becomes of the raster processor
    parties.rasters.send({.kind = Kind::Store, .page = page.number, .number = page.owner});
}

void ProcessJob::hearRasters(Parties& parties)
{
    const Message message = parties.rasters.receive();
    StoredPage& page = stored_.back();
    if (message.kind == Kind::Band) {
        page.bands.push_back(bandIn(message));
        if (loss_ && !loss_->ofCollation && loss_->page == page.number) {
            lose(parties.rasters);
        }
    } else if (message.kind == Kind::Stored) {
        page.header = {parties.rasters.takeText(), message.width, message.height, message.bytes};
        pageIsStored(page);
        ++parties.ready;
        requestPage(parties);
    }
}

void ProcessJob::lose(Party& party)
{
    party.signal(loss_->stops ? SIGSTOP : SIGKILL);
    loss_.reset();
}

void ProcessJob::hearCopies(Parties& parties)
{
    const Message message = parties.collation.receive();
    if (message.kind == Kind::Copies) {
        parties.copies = message.number;
    } else if (message.kind == Kind::Written) {
        ++parties.written;
        pageIsWritten(message.number, message.page);
    }
}

// One page at a time: the first copy follows the raster processor, the others come from memory.
void ProcessJob::requestCopies(Parties& parties)
{
    const std::size_t pages = order_.rasters.size();
    if (parties.asked > parties.written || parties.asked == parties.copies * pages)
        return;
    const std::size_t page = parties.asked % pages;
    const bool first = parties.asked < pages;
    if (first && page == parties.ready)
        return;
    if (first)
        parties.collation.send(stored_[page]);
    if (loss_ && loss_->ofCollation && loss_->page == stored_[page].number) {
        lose(parties.collation);
    }
    parties.collation.send({.kind = Kind::Write,
                            .page = stored_[page].number,
                            .number = static_cast<std::uint32_t>(parties.asked / pages + 1)});
    ++parties.asked;
}

} // namespace printjob
