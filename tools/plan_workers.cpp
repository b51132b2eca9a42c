#include "plan_workers.hpp"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "host/machine.h"

namespace velmora::tools {

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(PlanSegment, bytes, block, map, overflow)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(PlanLayout, area, segments)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(PlanRefusal, line, asker, segment, bytes)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(PlanUse, usable, peak, peakLine, waste, longest, longestLine, overflowed, refused)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(PlanMoment, line, used)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(PlanResult, impossible, refused, refusals, use, moments)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(PlanJob, layout, depth)

namespace {

// All of so many bytes; false where the other end is gone.
template <auto transfer, class Byte> bool moveAll(int wire, Byte* bytes, std::size_t count)
{
    while (count != 0) {
        const ssize_t moved = transfer(wire, bytes, count, MSG_NOSIGNAL);
        if (moved < 0 && errno == EINTR)
            continue;
        if (moved <= 0)
            return false;
        bytes += moved;
        count -= static_cast<std::size_t>(moved);
    }
    return true;
}

template <class Message> bool sendMessage(int wire, const Message& message)
{
    const std::vector<std::uint8_t> bytes = nlohmann::json::to_cbor(nlohmann::json(message));
    const auto count = static_cast<std::uint32_t>(bytes.size());
    return moveAll<::send>(wire, reinterpret_cast<const std::uint8_t*>(&count), sizeof count) &&
           moveAll<::send>(wire, bytes.data(), bytes.size());
}

template <class Message> bool receiveMessage(int wire, Message& message)
{
    std::uint32_t count = 0;
    if (!moveAll<::recv>(wire, reinterpret_cast<std::uint8_t*>(&count), sizeof count))
        return false;
    std::vector<std::uint8_t> bytes(count);
    if (!moveAll<::recv>(wire, bytes.data(), bytes.size()))
        return false;
    message = nlohmann::json::from_cbor(bytes).get<Message>();
    return true;
}

// The whole of a worker's process.
[[noreturn]] void work(int wire, const PlanRecording& recording)
{
    PlanJob job;
    try {
        while (receiveMessage(wire, job) && sendMessage(wire, playRecording(recording, job.layout, job.depth))) {
        }
    } catch (const std::exception&) { // the other end sees that it is gone
        _exit(1);
    }
    _exit(0);
}

} // namespace

PlanWorkers::PlanWorkers(const PlanRecording& recording, unsigned count)
{
    if (sim::machine().ramFile() >= 0) // its processes would share their memory
        throw std::logic_error("replays begin before the simulated machine is switched on");
    if (count == 0)
        count = std::max(1U, std::thread::hardware_concurrency());
    while (workers_.size() < count)
        start(recording);
}

PlanWorkers::~PlanWorkers()
{
    for (const Worker& worker : workers_)
        close(worker.wire);
    for (const Worker& worker : workers_)
        while (waitpid(worker.process, nullptr, 0) < 0 && errno == EINTR) {
        }
}

void PlanWorkers::start(const PlanRecording& recording)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot start a process for replays");
    const pid_t process = fork();
    if (process == 0) {
        for (const Worker& other : workers_)
            close(other.wire);
        close(ends[0]);
        work(ends[1], recording);
    }
    const int error = errno;
    close(ends[1]);
    if (process < 0) {
        close(ends[0]);
        throw std::system_error(error, std::generic_category(), "cannot start a process for replays");
    }
    workers_.push_back({process, ends[0]});
}

// The next job, while there is one.
bool PlanWorkers::give(Worker& worker, std::span<const PlanJob> jobs, std::size_t& next)
{
    worker.busy = next < jobs.size();
    if (!worker.busy)
        return false;
    worker.job = next++;
    ++replays_;
    if (!sendMessage(worker.wire, jobs[worker.job]))
        throw std::runtime_error("a process that replays was lost");
    return true;
}

std::vector<PlanResult> PlanWorkers::run(std::span<const PlanJob> jobs)
{
    std::vector<PlanResult> results(jobs.size());
    std::size_t next = 0, busy = 0;
    for (Worker& worker : workers_)
        busy += give(worker, jobs, next) ? 1 : 0;
    std::vector<pollfd> waiting;
    while (busy != 0) {
        waiting.clear();
        for (const Worker& worker : workers_)
            waiting.push_back({worker.busy ? worker.wire : -1, POLLIN, 0});
        if (poll(waiting.data(), waiting.size(), -1) < 0)
            continue;
        for (std::size_t at = 0; at < workers_.size(); ++at) {
            if (waiting[at].revents == 0)
                continue;
            Worker& worker = workers_[at];
            if (!receiveMessage(worker.wire, results[worker.job]))
                throw std::runtime_error("a process that replays was lost");
            busy -= give(worker, jobs, next) ? 0 : 1;
        }
    }
    return results;
}

} // namespace velmora::tools
