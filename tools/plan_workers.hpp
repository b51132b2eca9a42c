// Replays of a recording in processes of their own, as many at a time as there are processors: the manager is one for each
// process. What comes back does not depend on how many there are.
#pragma once

#include <span>
#include <vector>

#include <sys/types.h>

#include "plan_replay.hpp"

namespace velmora::tools {

struct PlanJob {
    PlanLayout layout;
    PlanDepth depth = PlanDepth::Whole;
};

class PlanWorkers
{
public:
    // count: of processes; 0: as many as there are processors. This process must not have switched the simulated machine on.
    // Throws std::system_error when they cannot be started.
    PlanWorkers(const PlanRecording& recording, unsigned count);
    PlanWorkers(const PlanWorkers&) = delete;
    PlanWorkers& operator=(const PlanWorkers&) = delete;
    ~PlanWorkers();

    // One result for each job, in their order. Throws std::runtime_error when a process was lost.
    std::vector<PlanResult> run(std::span<const PlanJob> jobs);

    unsigned count() const { return static_cast<unsigned>(workers_.size()); }
    unsigned replays() const { return replays_; } // that were run

private:
    struct Worker {
        pid_t process = -1;
        int wire = -1;
        std::size_t job = 0; // that it works on
        bool busy = false;
    };

    void start(const PlanRecording& recording);
    bool give(Worker& worker, std::span<const PlanJob> jobs, std::size_t& next);

    std::vector<Worker> workers_;
    unsigned replays_ = 0;
};

} // namespace velmora::tools
