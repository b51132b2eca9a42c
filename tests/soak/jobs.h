// A printer's week, as its memory sees it: documents of all sizes come by the hour of the day, pages are drawn with many short-lived
// blocks and kept as long as copies of them are printed, jobs are cancelled, parties die and others collect what they held.
#pragma once

#include <cstdint>
#include <map>
#include <queue>
#include <random>
#include <vector>

#include "guard/commands.h"

namespace velmora::soak {

inline constexpr std::uint64_t kHour = 3600 * 1000; // simulated time is counted in milliseconds
inline constexpr std::uint64_t kWeek = 7 * 24 * kHour;

struct Counts {
    std::uint64_t jobs = 0, pages = 0, allocations = 0, releases = 0, noRoom = 0;
    std::uint64_t cancelled = 0, killed = 0, givenUp = 0; // jobs; given up: there was no room for a page for long
    std::uint64_t scribbles = 0;                          // words written where nobody should write
    std::uint64_t refused = 0; // releases of blocks that a clean-up by overwritten owners had taken
};

// A controller with its segments and the jobs on it. Whatever must not be is thrown: a block given twice, a release refused, a
// command that does not come back.
class Printer
{
public:
    // Boots the simulated controller.
    explicit Printer(std::uint32_t seed);

    // Plays what happens until a simulated time.
    void playUntil(std::uint64_t time);
    // No more jobs come, those that there are end. Then everything must be free in one piece; throws when it is not.
    void closeDown();

    const Counts& counts() const { return counts_; }
    // Bands of pages, the drawing's lists, the heap.
    static constexpr unsigned kSegments = 3;
    static const char* segmentName(unsigned segment);
    const TMMSegInfo& segment(unsigned segment) const { return stSegTable[handles_[segment]]; }

private:
    struct Block {
        U32 handle, bytes, held; // bytes as asked for, bytes of its blocks
        unsigned job;
    };
    struct Job {
        unsigned pages = 0, copies = 0, drawn = 0, tries = 0;
        U8 owner = 0;
        bool collated = false;
        unsigned endsAt = 0; // page at which it is cancelled or its party dies; 0: it ends well
        bool dies = false;
        std::vector<std::vector<U32>> kept; // addresses of the bands of pages that are still to be printed
    };
    struct Event {
        std::uint64_t time;
        unsigned job; // 0: another job comes
        bool operator>(const Event& other) const { return time > other.time; }
    };

    U32 below(U32 limit) { return static_cast<U32>(random_() % limit); }
    bool oneIn(U32 count) { return below(count) == 0; }

    void arrive(std::uint64_t now);
    void proceed(std::uint64_t now, unsigned number);
    bool drawPage(unsigned number, Job& job);
    std::uint64_t printed(unsigned number, Job& job);
    void end(unsigned number, Job& job);

    U32 take(unsigned number, unsigned segment, U32 bytes);
    void give(unsigned number, U32 address);
    void giveAll(unsigned number, std::vector<U32>& addresses);
    void collectLost(unsigned number, U8 owner);
    void scribble();
    void releaseEverything(U32 handle);

    std::mt19937 random_, scribbles_;
    U32 handles_[kSegments] = {};
    std::priority_queue<Event, std::vector<Event>, std::greater<>> events_;
    std::map<unsigned, Job> jobs_;
    std::map<U32, Block> held_; // by address
    unsigned lastJob_ = 0;
    std::uint64_t now_ = 0;
    bool open_ = true; // jobs come
    Counts counts_;
};

} // namespace velmora::soak
