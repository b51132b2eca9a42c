#include "sequence.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "controller/device.h"
#include "kernel/mm/mm/MM_RunIndex.h"
#include "weights.h"

namespace velmora::fuzz {

using namespace test;
using sim::machine;
using sim::Outcome;

namespace {

// Accesses of one operation, far above what the longest list here takes.
constexpr unsigned long kTouchLimit = 2'000'000;

} // namespace

std::string Operation::text() const
{
    std::string line = name;
    const char* separator = "(";
    for (const U32 argument : arguments) {
        char text[16];
        std::snprintf(text, sizeof text, argument < 100'000 ? "%s%u" : "%s0x%x", separator,
                      static_cast<unsigned>(argument));
        line += text;
        separator = ", ";
    }
    return line + (arguments.empty() ? "()" : ")");
}

// Byte 0: bit 0 misuse, bits 1 to 3 how much of it, bits 4 to 7 long when all are set, byte 5 how long. Byte 1: how large segments are.
// Byte 2: how many segments. Byte 3: the heap. Byte 4: how often the whole state is looked at.
Sequence::Sequence(const std::uint8_t* data, std::size_t size) : data_(data), size_(size)
{
    ordinary_ = (byteAt(0) & 1) == 0;
    misuseRate_ = Weights::misuseRates[byteAt(0) >> 1 & 7];
    effort_ = byteAt(0) >> 4 != 15 ? 1 : byteAt(5) >= 16 ? kLong : kLongest;
    sizeLimit_ = Weights::sizeLimits[byteAt(1) & 7];
    stateInterval_ = 256U << (byteAt(4) & 3) * 2;
}

U32 Sequence::wordAt(std::size_t place) const
{
    return byteAt(place) | U32(byteAt(place + 1)) << 8 | U32(byteAt(place + 2)) << 16 | U32(byteAt(place + 3)) << 24;
}

Sequence::Record Sequence::recordAt(std::size_t place) const
{
    return {byteAt(place), byteAt(place + 1), byteAt(place + 2), byteAt(place + 3), wordAt(place + 4)};
}

void Sequence::play(bool useIndex, Observer& observer)
{
    observer_ = &observer;
    segments_.clear();
    lastReleased_ = {};
    operations_ = overlays_ = mended_ = 0;
    sim::powerOn();
    machine().faults.touchLimit = kTouchLimit;
    MM_UseRunIndex(useIndex);
    try {
        perform("printer_mm_init", 0, {}, [] { return load(); });
        perform("MM_Entry", 0, {MM_CONSTRUCT_DEFAULT_MCT}, [] { return MM_Entry(MM_CONSTRUCT_DEFAULT_MCT); });
        bringUp();
        if (!ordinary_)
            combAll(recordAt(72));
        for (std::size_t place = kHeadBytes; place < size_; place += kRecordBytes)
            step(recordAt(place));
        tellState();
    } catch (const SequenceEnds&) {
    }
    MM_UseRunIndex(TRUE);
}

U32 Sequence::perform(const char* name, U32 handle, std::vector<U32> arguments, const std::function<U32()>& call)
{
    const Outcome outcome = machine().run(call);
    machine().faults.touchLimit = kTouchLimit;
    observer_->operation({name, std::move(arguments)}, handle, outcome, machine().takeLog());
    if (outcome.kind == Outcome::Kind::Endless)
        throw SequenceEnds{}; // in the midst of something
    if (outcome.kind == Outcome::Kind::Oops) {
        tellState();
        throw SequenceEnds{};
    }
    // A controller stands still where a lock stays held. Here somebody releases it now and then, so that it goes on.
    if (anyLockHeld() && operations_ % 2 == 0)
        for (const TMMLock lock : kLocks)
            machine().unlock(lock);
    if (++operations_ % stateInterval_ == 0)
        tellState();
    return outcome.value;
}

void Sequence::tellState()
{
    observer_->state(indexesKept());
}

// Where a segment's blocks hold no header, its list breaks, and where they are no multiple of four bytes, a stack grows
// past its end: such segments write over others, also without misuse.
bool Sequence::indexesKept() const
{
    const auto soundSegment = [](const Segment& segment) { return holdsHeaders(segment.handle); };
    if (!ordinary_ || !std::all_of(segments_.begin(), segments_.end(), soundSegment))
        return true;
    return std::all_of(segments_.begin(), segments_.end(),
                       [](const Segment& segment) { return !segment.indexed || MM_HasRunIndex(segment.handle); });
}

void Sequence::step(const Record& record)
{
    Segment& segment = segments_[record.segment % segments_.size()];
    // All bytes together say whether a step goes wrong, so that none of them is bound by it.
    const U32 mixed = (record.number ^ record.owner << 20 ^ record.how << 9 ^ record.kind) * 0x9E3779B1U;
    if (!ordinary_ && mixed >> 21 < misuseRate_) {
        misuse(segment, record);
        return observer_->misused();
    }
    if (segment.spoiledFor != 0 && ++segment.spoiledFor > 8U + record.how % 32)
        return mend(segment, record);

    (this->*chosen(Weights::steps, record.kind).play)(segment, record);
}

void Sequence::misuse(Segment& segment, const Record& record)
{
    segment.spoiledFor = 1;
    (this->*chosen(Weights::misuses, record.kind % 16).play)(segment, record);
}

} // namespace velmora::fuzz
