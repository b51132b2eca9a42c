// What one party hands to another: a queue that can be closed.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>

namespace printjob {

template <class T> class Queue
{
public:
    void push(T item)
    {
        const std::lock_guard guard(mutex_);
        items_.push_back(std::move(item));
        changed_.notify_one();
    }

    // No more items will come.
    void close()
    {
        const std::lock_guard guard(mutex_);
        closed_ = true;
        changed_.notify_all();
    }

    // Waits for the next item; nullopt when the queue is closed and empty.
    std::optional<T> pop()
    {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return closed_ || !items_.empty(); });
        if (items_.empty())
            return std::nullopt;
        T item = std::move(items_.front());
        items_.pop_front();
        return item;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<T> items_;
    bool closed_ = false;
};

} // namespace printjob
