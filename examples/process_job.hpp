// A job whose parties are three processes: job handling, in this one, starts the other two and tells them what to do.
#pragma once

#include <optional>
#include <string>

#include "job.hpp"
#include "processes.hpp"

namespace printjob {

// A party that is to be killed in the middle of a page, to see the job survive it. Once.
struct Loss {
    bool ofCollation = false; // else of the raster processor
    unsigned page = 0;
};

class ProcessJob : public Job
{
public:
    // device: as velmora::openNode() takes it; each party opens it for itself.
    ProcessJob(std::string device, const Order& order, std::optional<Loss> loss);

    // A party that is lost is replaced: job handling collects what the pages hold, by owner, and prints the job again.
    void run() override;

private:
    struct Parties;

    void printOnce();
    void work(Parties& parties);
    void noteLastBands(Parties& parties);
    void collectAfter(const PartyLost& lost);
    void requestPage(Parties& parties);
    void hearRasters(Parties& parties);
    void hearCopies(Parties& parties);
    void requestCopies(Parties& parties);

    std::string device_;
    std::optional<Loss> loss_;
};

} // namespace printjob
