// A sequence of operations on the manager, decoded from bytes: how the controller is set up, then what its clients do.
// The same bytes are the same operations as long as the manager answers the same, whatever its segments search with.
//
// Bytes: a head of Sequence::kHeadBytes bytes, then one record of Sequence::kRecordBytes bytes for each step. Missing
// bytes are zero. A step is one operation, or many (a comb, churn). What a byte means is told where it is read.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "support/manager.h"

namespace velmora::fuzz {

// An operation by its name and arguments, for a person.
struct Operation {
    const char* name;
    std::vector<U32> arguments;

    std::string text() const;
};

// Sees what each operation answers. Ends the sequence by throwing SequenceEnds.
class Observer
{
public:
    virtual ~Observer() = default;
    // handle: the segment that was worked on. Called with the machine between two operations.
    virtual void operation(const Operation& operation, U32 handle, const sim::Outcome& outcome,
                           const std::vector<std::string>& log) = 0;
    // It is time to look at everything. indexesKept: false when a segment has lost the index
    // that it was created with although all its clients are correct.
    virtual void state(bool indexesKept) = 0;
    // A client has just done something wrong.
    virtual void misused() = 0;
};

struct SequenceEnds {
};

class Sequence
{
public:
    static constexpr std::size_t kHeadBytes = 80;
    static constexpr std::size_t kRecordBytes = 8;
    // How many times as many accesses a sequence may make because it has thousands of free runs.
    static constexpr unsigned kLong = 16, kLongest = 128;
    static constexpr U32 kMostBlocks = 200'000; // of a segment
    static constexpr U32 kMaxSegmentBytes = 24 << 20;
    static constexpr const char* kFixedNames[] = {"$UEV", "$JCB", "$FIL"};

    struct Weights;

    Sequence(const std::uint8_t* data, std::size_t size);

    // Nothing but what a correct client does.
    bool ordinary() const { return ordinary_; }
    unsigned effort() const { return effort_; }

    // Plays everything from power-on, every segment with an index where it can have one, or every segment walking.
    void play(bool useIndex, Observer& observer);

private:
    // Memory that a client was given.
    struct Grant {
        U32 address, blocks;
        U8 owner;
    };
    struct Segment {
        U32 handle = 0;
        bool stack = false;
        bool indexed = false;     // and must stay so while the clients are correct
        U32 start = 0, bytes = 0; // where it was placed
        U32 spoiledFor = 0;       // steps since it was misused, 0: it was not
        std::vector<Grant> grants;
    };
    struct Run {
        U32 address, blocks;
    };
    // A step as its bytes say it; how and number are used up by parts as the step goes.
    struct Record {
        U8 kind, segment, how, owner;
        U32 number;
    };
    struct Shape {
        U32 blockBytes, bytes;
        U8 mapBits, semaphore, overflow, type, discipline;
    };

    U8 byteAt(std::size_t place) const { return place < size_ ? data_[place] : 0; }
    U32 wordAt(std::size_t place) const;
    Record recordAt(std::size_t place) const;

    // Set-up
    void bringUp();
    Shape shapeAt(std::size_t place) const;
    void create(const char* name, const Shape& shape);
    void createHeap(std::size_t place);
    void cutFreeMemory(unsigned pieces, U32 bytes);

    // Steps
    void step(const Record& record);
    void allocate(Segment& segment, const Record& record);
    void give(Segment& segment, U32 address, U32 blocks, U8 owner);
    void release(Segment& segment, const Record& record);
    void releaseGrant(Segment& segment, std::size_t index, U32 first, U32 blocks, unsigned how);
    void claim(Segment& segment, const Record& record);
    void collect(Segment& segment, const Record& record);
    void permanent(Segment& segment, const Record& record);
    void write(Segment& segment, const Record& record);
    void query(Segment& segment, const Record& record);
    void takeAll(Segment& segment, const Record& record);
    void combAll(const Record& record);
    void comb(Segment& segment, const Record& record);
    void churn(Segment& segment, const Record& record);
    void startAnew(Segment& segment, const Record& record);
    void restart(Segment& segment, const Record& record);
    void mend(Segment& segment, const Record& record);

    // Misuse
    void misuse(Segment& segment, const Record& record);
    void releaseWrongly(Segment& segment, const Record& record);
    Run wrongRelease(const Segment& segment, const Record& record) const;
    static U32 wrongPlace(const TMMSegInfo& seg, U32 number);
    void claimWrongly(Segment& segment, const Record& record);
    void allocateWrongly(Segment& segment, const Record& record);
    void writeHeader(Segment& segment, const Record& record);
    void clear(Segment& segment, const Record& record);
    void layOver(Segment& segment, const Record& record);
    void permanentWrongly(Segment& segment, const Record& record);

    // One operation of the manager, or of a client on memory, on the machine.
    U32 perform(const char* name, U32 handle, std::vector<U32> arguments, const std::function<U32()>& call);
    void tellState();
    bool indexesKept() const;

    U8 ownerFor(const Segment& segment, U8 byte) const;
    Segment* segmentOf(U32 handle);
    // The free run that is so many nodes from one end of the list, as far as there are any; blocks 0 for none.
    static Run freeRun(U32 handle, U32 nodes, bool fromTail);
    // Forgets what lies in free memory, after releases whose extent only the manager knows.
    void forgetReleased(Segment& segment);
    static bool canBeCleaned(U32 handle);
    static U32 unitBytes(U32 handle) { return 1U << stSegTable[handle].ubBlkBit; }
    static bool holdsHeaders(U32 handle) { return unitBytes(handle) >= 16; }

    const std::uint8_t* data_;
    std::size_t size_;
    bool ordinary_;
    unsigned effort_;
    U32 misuseRate_; // of 2048 steps
    U32 sizeLimit_;  // blocks of a segment
    U32 stateInterval_;

    Observer* observer_ = nullptr;
    std::vector<Segment> segments_;
    Grant lastReleased_{};
    U32 operations_ = 0;
    U32 overlays_ = 0;
    U32 mended_ = 0;
};

} // namespace velmora::fuzz
