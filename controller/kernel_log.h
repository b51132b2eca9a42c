// The controller's kernel log: a ring of the last messages, numbered from 0.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <string>

namespace velmora::sim {

class KernelLog
{
public:
    explicit KernelLog(std::size_t mostBytes = 256U << 10) : mostBytes_(mostBytes) {}

    // The oldest messages give way, the newest stays whatever its size.
    void append(std::string message)
    {
        bytes_ += message.size() + kMessageCost;
        messages_.push_back(std::move(message));
        while (bytes_ > mostBytes_ && messages_.size() > 1) {
            bytes_ -= messages_.front().size() + kMessageCost;
            messages_.pop_front();
            ++first_;
        }
    }

    std::uint64_t first() const { return first_; }                  // number of the oldest message that is kept
    std::uint64_t end() const { return first_ + messages_.size(); } // number of the next message
    // number: from first() up to end(), without it.
    const std::string& at(std::uint64_t number) const { return messages_[static_cast<std::size_t>(number - first_)]; }

private:
    static constexpr std::size_t kMessageCost = 64; // what a message takes beside its text

    std::size_t mostBytes_;
    std::size_t bytes_ = 0;
    std::uint64_t first_ = 0;
    std::deque<std::string> messages_;
};

// A place in the log from which somebody reads on.
class LogReader
{
public:
    explicit LogReader(std::uint64_t next = 0) : next_(next) {}

    bool behind(const KernelLog& log) const { return next_ < log.end(); }
    // Number of the next message for this reader; `lost`: how many it missed before that one. behind() holds.
    std::uint64_t next(const KernelLog& log, std::uint64_t& lost) const
    {
        const std::uint64_t number = std::max(next_, log.first());
        lost = number - next_;
        return number;
    }
    void took(std::uint64_t number) { next_ = number + 1; }

private:
    std::uint64_t next_;
};

} // namespace velmora::sim
