// The command path to a controller in another process, beside the least that a word and an answer cost between two
// processes: one byte there and one back through a socket pair.
#pragma once

#include <optional>
#include <vector>

#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <velmora/controller.hpp>

#include "contenders.hpp"

namespace bench {

// As long as it lives, this program and what it starts have one processor: what is compared is the work, not where the
// scheduler put it.
class OneProcessor
{
public:
    OneProcessor()
    {
        sched_getaffinity(0, sizeof before_, &before_);
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(sched_getcpu(), &one);
        sched_setaffinity(0, sizeof one, &one);
    }
    OneProcessor(const OneProcessor&) = delete;
    OneProcessor& operator=(const OneProcessor&) = delete;
    ~OneProcessor() { sched_setaffinity(0, sizeof before_, &before_); }

private:
    cpu_set_t before_{};
};

class SocketPairTrip
{
public:
    SocketPairTrip()
    {
        int ends[2];
        expect(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "there is no socket pair");
        own_ = ends[0];
        echo_ = fork();
        if (echo_ == 0) {
            close(ends[0]);
            for (char byte; read(ends[1], &byte, 1) == 1 && write(ends[1], &byte, 1) == 1;) {
            }
            _exit(0);
        }
        close(ends[1]);
        expect(echo_ > 0, "there is no process for the other end");
    }
    SocketPairTrip(const SocketPairTrip&) = delete;
    SocketPairTrip& operator=(const SocketPairTrip&) = delete;
    ~SocketPairTrip()
    {
        close(own_);
        waitpid(echo_, nullptr, 0);
    }

    void prepare() {}
    bool operation(std::size_t)
    {
        char byte = 1;
        return write(own_, &byte, 1) == 1 && read(own_, &byte, 1) == 1;
    }

private:
    int own_ = -1;
    pid_t echo_ = -1;
};

// An allocation or a release, in turn.
class SocketCommand
{
public:
    void prepare()
    {
        device_.startLibrary(SM_BKUP_OK);
        handle_ =
            device_.createSegment({.name = "BNCH", .bytes = 8U << 20, .blockBytes = 4096, .mapBits = 8}).hulHandle;
    }
    bool operation(std::size_t i)
    {
        if (i % 2 != 0)
            device_.release(handle_, address_, kBytes);
        else if (const auto address = device_.allocate(handle_, kBytes, 1))
            address_ = *address;
        else
            return false;
        return true;
    }

private:
    static constexpr std::uint32_t kBytes = 65536;

    static velmora::Device openBuilt(const velmora::sim::Controller& controller)
    {
        velmora::Device device(controller.open());
        device.buildTable();
        return device;
    }

    velmora::sim::Controller controller_;
    velmora::Device device_{openBuilt(controller_)};
    std::uint32_t handle_ = 0;
    TAddr address_ = 0;
};

template <class Trip> class SocketWork
{
public:
    static constexpr bool kLocks = false;

    explicit SocketWork(std::size_t operations) : operations_(operations) {}

    std::size_t operations() const { return operations_; }
    bool allocates(std::size_t i) const { return i % 2 == 0; }
    std::uint64_t failed() const { return failed_; }
    void prepare()
    {
        trip_.prepare();
        failed_ = 0;
    }
    void run(std::size_t i) { failed_ += !trip_.operation(i); }
    std::optional<double> largestRunRatio() { return std::nullopt; }

private:
    OneProcessor processor_;
    std::size_t operations_;
    Trip trip_;
    std::uint64_t failed_ = 0;
};

} // namespace bench
