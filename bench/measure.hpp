// Measures one contender on one workload.
//
// A workload is an object with
//   operations()         how many operations one pass has
//   prepare()            the state before the first, as far as it can be the same each time
//   run(i)               operation i
//   allocates(i)         is it an allocation
//   kLocks               constant: does the contender take the manager's locks
//   before(i)            optional: what must be done again before operation i, not measured; batches are then of one
//
// Passes are repeated from the same state, and each operation keeps its shortest time: what an operation must do, it does
// in every pass, while an interruption of this program hits another operation each time. So the percentiles and the
// worst time are the contender's, not the machine's. The median comes from batches of operations, since the processor's
// counter may advance in steps of ten nanoseconds; the rate from Google Benchmark, which adds no reading at all.
#pragma once

#include <algorithm>
#include <chrono>
#include <ctime>
#include <limits>
#include <vector>

#include "clock.hpp"
#include "lock_hold.hpp"
#include "results.hpp"

namespace bench {

struct Effort {
    unsigned passes = 5;
    double secondsPerPass = 0.15; // where a whole pass would take six times as long: the rest is left out
    std::size_t batch = 16;
};

inline double percentile(const std::vector<std::uint32_t>& sorted, double part)
{
    return sorted[std::min(sorted.size() - 1, static_cast<std::size_t>(part * static_cast<double>(sorted.size())))];
}

template <class Work> void makeReady(Work& work, std::size_t i)
{
    if constexpr (requires { work.before(i); })
        work.before(i);
}

class Shortest
{
public:
    explicit Shortest(std::size_t count) : ticks_(count, std::numeric_limits<std::uint32_t>::max()) {}

    void note(std::size_t i, std::uint64_t ticks)
    {
        ticks_[i] = static_cast<std::uint32_t>(std::min<std::uint64_t>(ticks_[i], ticks));
    }
    void truncate(std::size_t count) { ticks_.resize(count); }
    const std::vector<std::uint32_t>& ticks() const { return ticks_; }
    std::vector<std::uint32_t> sorted() const
    {
        auto sorted = ticks_;
        std::sort(sorted.begin(), sorted.end());
        return sorted;
    }

private:
    std::vector<std::uint32_t> ticks_;
};

template <class Work> class Measurement
{
public:
    Measurement(Work& work, const Clock& clock, const Effort& effort)
        : work_(work), clock_(clock), effort_(effort), count_(work.operations())
    {
    }

    // Operations of a pass that fit into the time; the same for all passes.
    std::size_t count() const { return count_; }

    void singles(Result& result)
    {
        Shortest shortest(count_);
        std::vector<std::uint32_t> first(count_);
        std::uint64_t worst = 0;
        for (unsigned pass = 0; pass < effort_.passes; ++pass) {
            work_.prepare();
            const Deadline deadline(effort_.secondsPerPass);
            for (std::size_t i = 0; i < count_; ++i) {
                makeReady(work_, i);
                const std::uint64_t start = ticks();
                work_.run(i);
                const std::uint64_t taken = ticks() - start;
                shortest.note(i, taken);
                worst = std::max(worst, taken);
                if (pass == 0) {
                    first[i] = static_cast<std::uint32_t>(taken);
                    if ((i + 1) % kStep == 0 &&
                        deadline.wouldTake(6, static_cast<double>(i + 1) / static_cast<double>(count_)))
                        count_ = i + 1;
                }
            }
            if (pass == 0)
                shortest.truncate(count_);
        }
        first.resize(count_);
        const auto sorted = shortest.sorted();
        result.samples = count_;
        result.p999Ns = clock_.ns(percentile(sorted, 0.999));
        result.worstNs = clock_.ns(sorted.back());
        result.interruptedNs = clock_.ns(static_cast<double>(worst));
        result.allocateMeanNs = mean(first, true);
        result.releaseMeanNs = mean(first, false);
    }

    void batches(Result& result)
    {
        const std::size_t batch = std::min(effort_.batch, count_);
        const std::size_t batches = count_ / batch;
        Shortest shortest(batches);
        for (unsigned pass = 0; pass < effort_.passes; ++pass) {
            work_.prepare();
            for (std::size_t b = 0; b < batches; ++b) {
                makeReady(work_, b * batch);
                const std::uint64_t start = ticks();
                for (std::size_t i = b * batch; i < (b + 1) * batch; ++i)
                    work_.run(i);
                shortest.note(b, ticks() - start);
            }
        }
        result.batch = batch;
        result.medianNs = clock_.ns(percentile(shortest.sorted(), 0.5)) / static_cast<double>(batch);
    }

    void lockHold(Result& result)
    {
        if constexpr (Work::kLocks) {
            Shortest shortest(count_);
            bench::lockHold.timed = false;
            for (unsigned pass = 0; pass < effort_.passes; ++pass) {
                work_.prepare();
                for (std::size_t i = 0; i < count_; ++i) {
                    makeReady(work_, i);
                    bench::lockHold.longest = 0;
                    bench::lockHold.timed = true;
                    work_.run(i);
                    bench::lockHold.timed = false;
                    shortest.note(i, bench::lockHold.longest);
                }
            }
            result.lockNs = clock_.ns(shortest.sorted().back());
        }
    }

private:
    static constexpr std::size_t kStep = 16; // a pass is cut short between steps of a workload only

    // In processor time, which is looked at only once the wall's time is up.
    class Deadline
    {
    public:
        explicit Deadline(double seconds) : seconds_(seconds) {}
        // The time is up, and all the work would take so many times as long, going by the part that is done.
        bool wouldTake(double times, double part) const
        {
            const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start_;
            if (wall.count() < seconds_)
                return false;
            const double processor = double(std::clock() - processor_) / CLOCKS_PER_SEC;
            return processor >= seconds_ && processor >= times * seconds_ * part;
        }

    private:
        double seconds_;
        std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
        std::clock_t processor_ = std::clock();
    };

    double mean(const std::vector<std::uint32_t>& samples, bool allocations) const
    {
        std::vector<std::uint32_t> chosen;
        for (std::size_t i = 0; i < samples.size(); ++i)
            if (work_.allocates(i) == allocations)
                chosen.push_back(samples[i]);
        if (chosen.empty())
            return 0;
        std::sort(chosen.begin(), chosen.end());
        chosen.resize(std::max<std::size_t>(1, chosen.size() * 99 / 100));
        double sum = 0;
        for (const std::uint32_t sample : chosen)
            sum += sample;
        return clock_.ns(sum / static_cast<double>(chosen.size()));
    }

    Work& work_;
    const Clock& clock_;
    const Effort& effort_;
    std::size_t count_;
};

} // namespace bench
