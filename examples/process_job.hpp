// A job whose parties are three processes: job handling, in this one, starts the other two and tells them what to do.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "job.hpp"
#include "processes.hpp"

namespace printjob {

// A party that is to be lost in the middle of a page, to see the job survive it. Once.
struct Loss {
    bool ofCollation = false; // else of the raster processor
    unsigned page = 0;
    bool stops = false; // it is stopped and says nothing more; else killed
};

class ProcessJob : public Job
{
public:
    // device: as velmora::openNode() takes it; each party opens it for itself. patience: how long a party that owes an
    // answer may be silent.
    ProcessJob(std::string device, const Order& order, std::chrono::seconds patience, std::optional<Loss> loss);

    // A party that is lost is replaced: job handling collects what the pages hold, by owner, and prints the job again.
    void run() override;

private:
    struct Parties;

    void printOnce();
    void work(Parties& parties);
    [[noreturn]] void endSilence(Parties& parties) const;
    void noteLastBands(Parties& parties);
    void collectAfter(const PartyLost& lost);
    void requestPage(Parties& parties);
    void hearRasters(Parties& parties);
    void hearCopies(Parties& parties);
    void requestCopies(Parties& parties);
    void lose(Party& party);

    std::string device_;
    std::chrono::seconds patience_;
    std::optional<Loss> loss_;
};

} // namespace printjob
