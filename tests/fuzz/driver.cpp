#include "driver.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>
#include <vector>

#include "controller/manager_state.h"
#include "controller/session_text.h"
#include "kernel/mm/mm/MM_RunIndex.h"
#include "sequence.h"

namespace velmora::fuzz {

using namespace test;
using sim::Machine;
using sim::machine;
using sim::Outcome;

namespace {

constexpr unsigned kMostNodes = 1'000'000; // a list that is longer is taken for endless
constexpr U32 kPageBytes = 4096;

using Hash = std::uint64_t;

class Hasher
{
public:
    void add(const void* bytes, std::size_t count)
    {
        const auto* const byte = static_cast<const std::uint8_t*>(bytes);
        for (std::size_t i = 0; i < count; ++i)
            value_ = (value_ ^ byte[i]) * 0x100000001B3ULL;
    }
    // Of a pointer its value is meant.
    template <class... T> void addAll(const T&... values)
    {
        (add(&values, sizeof values), ...); // NOLINT(bugprone-sizeof-expression)
    }
    Hash value() const { return value_; }

private:
    Hash value_ = 0xCBF29CE484222325ULL;
};

// A page of memory; 0 for one of zeros.
Hash hashOfPage(U32 address)
{
    U32 any = 0;
    U32 sum = 0;
    U32 product = 1;
    for (U32 i = 0; i < kPageBytes; i += 4) {
        U32 word;
        std::memcpy(&word, Machine::at(address + i), sizeof word);
        any |= word;
        sum = (sum ^ word) * 0x9E3779B1U;
        product = product * 0x01000193U + word;
    }
    return any == 0 ? 0 : (static_cast<Hash>(sum) << 32 | product) ^ address;
}

std::map<U32, Hash> pagesOfMemory()
{
    std::map<U32, Hash> pages;
    for (const Machine::Stretch& stretch : machine().usedRam())
        for (U32 page = stretch.start; page < stretch.end; page += kPageBytes)
            if (const Hash hash = hashOfPage(page))
                pages.emplace(page, hash);
    return pages;
}

Hash hashOfState()
{
    Hasher hasher;
    for (const sim::ManagerVariable& variable : sim::managerVariables())
        hasher.add(variable.place, variable.bytes);
    for (const TMMLock lock : kLocks)
        hasher.addAll(machine().lockHeld(lock));
    // The lists lie in memory.
    for (const Machine::Stretch& stretch : machine().usedRam())
        for (U32 page = stretch.start; page < stretch.end; page += kPageBytes)
            if (const Hash hash = hashOfPage(page))
                hasher.addAll(hash);
    return hasher.value();
}

// Nodes from the head on, as far as they exist, at the most so many.
unsigned countNodes(U32 handle, unsigned most)
{
    unsigned nodes = 0;
    for (const TMMBlkStr* run = astBlkHead[handle].pstBlk; isNode(run) && nodes < most; run = run->pstNext)
        ++nodes;
    return nodes;
}

// True when the list, followed one way or the other, comes back to where it was.
bool isEndless(U32 handle)
{
    if (countNodes(handle, kMostNodes) == kMostNodes)
        return true;
    unsigned nodes = 0;
    for (const TMMBlkStr* run = astBlkTail[handle].pstBlk; isNode(run) && nodes < kMostNodes; run = run->pstBack)
        ++nodes;
    return nodes == kMostNodes;
}

// An index that is kept is awake when its segment has more runs than it sleeps through.
bool isAwake(U32 handle)
{
    handle = MM_RealHandle(handle);
    return handle < MAX_SEGTABLE_SIZE && MM_HasRunIndex(handle) && countNodes(handle, WAKE_RUNS + 1) > WAKE_RUNS;
}

unsigned longestList()
{
    unsigned longest = 0;
    for (U32 handle = 0; handle < MAX_SEGTABLE_SIZE; ++handle)
        if (stSegTable[handle].pfnAlloc == MM_AllocBlk)
            longest = std::max(longest, countNodes(handle, kMostNodes) % kMostNodes);
    return longest;
}

// What an operation answered, or what the state was.
struct Step {
    Outcome::Kind kind = Outcome::Kind::Returned;
    U32 value = 0;
    Hash log = 0;

    bool operator==(const Step&) const = default;
};

Step stepOf(const Outcome& outcome, const std::vector<std::string>& log)
{
    Hasher hasher;
    for (const std::string& message : log)
        hasher.add(message.c_str(), message.size() + 1);
    const U32 value = outcome.returned()                    ? outcome.value
                      : outcome.kind == Outcome::Kind::Hang ? U32(outcome.lock)
                                                            : outcome.address;
    return {outcome.kind, value, hasher.value()};
}

std::string textOf(const Outcome& outcome)
{
    char text[32];
    std::snprintf(text, sizeof text, " = 0x%x", static_cast<unsigned>(outcome.value));
    return outcome.returned() ? text : outcome.describe("");
}

// Notes what the walk answers, until it has made its accesses.
class Note : public Observer
{
public:
    explicit Note(unsigned long accesses) : accesses_(accesses) {}

    void operation(const Operation&, U32 handle, const Outcome& outcome, const std::vector<std::string>& log) override
    {
        // What is merely long, and not endless, is not compared: an index may finish it.
        if (outcome.kind == Outcome::Kind::Endless && !isEndless(MM_RealHandle(handle)) && !isEndless(HEAPHANDLE))
            throw SequenceEnds{};
        steps.push_back(stepOf(outcome, log));
        if (machine().touches() > accesses_)
            throw SequenceEnds{};
    }
    void state(bool) override
    {
        verdict.longestList = std::max<unsigned long>(verdict.longestList, longestList());
        steps.push_back({Outcome::Kind::Returned, 0, hashOfState()});
    }
    void misused() override {}

    std::vector<Step> steps;
    Verdict verdict;

private:
    unsigned long accesses_;
};

// Compares with it.
class Compare : public Observer
{
public:
    explicit Compare(const std::vector<Step>& steps) : steps_(steps) {}

    void operation(const Operation& operation, U32 handle, const Outcome& outcome,
                   const std::vector<std::string>& log) override
    {
        if (next == steps_.size())
            throw SequenceEnds{};
        ++operations;
        awake += isAwake(handle) ? 1 : 0;
        compare(stepOf(outcome, log), operation.text());
    }
    void state(bool indexesKept) override
    {
        if (next == steps_.size())
            throw SequenceEnds{};
        compare({Outcome::Kind::Returned, 0, hashOfState()}, "the state");
        if (!indexesKept)
            differ("an index was dropped although all clients were correct");
        misused();
    }
    // An index that does not agree with its list gives wrong answers sooner or later.
    void misused() override
    {
        for (U32 handle = 0; handle < MAX_SEGTABLE_SIZE; ++handle)
            if (!MM_RunIndexAgrees(handle))
                differ("the index of segment " + std::to_string(handle) + " does not agree with its list");
    }

    std::size_t next = 0; // step to compare
    unsigned long operations = 0, awake = 0;
    std::string difference;

private:
    void compare(const Step& step, const std::string& what)
    {
        if (step != steps_[next])
            differ(what + " differs");
        ++next;
    }
    [[noreturn]] void differ(const std::string& what)
    {
        difference = what;
        throw SequenceEnds{};
    }

    const std::vector<Step>& steps_;
};

// Writes down the step with a number: an operation's answer and log, or the state.
class Explain : public Observer
{
public:
    explicit Explain(std::size_t wanted) : wanted_(wanted) {}

    void operation(const Operation& operation, U32, const Outcome& outcome,
                   const std::vector<std::string>& log) override
    {
        if (next_++ != wanted_)
            return;
        text = operation.text() + textOf(outcome) + "\n";
        for (const std::string& message : log)
            text += "  " + sim::escaped(message) + "\n";
        throw SequenceEnds{};
    }
    void state(bool) override
    {
        if (next_++ != wanted_)
            return;
        text = sim::dumpManagerState();
        pages = pagesOfMemory();
        throw SequenceEnds{};
    }
    void misused() override {}

    std::string text;
    std::map<U32, Hash> pages;

private:
    std::size_t wanted_;
    std::size_t next_ = 0;
};

std::string firstDifferentLines(const std::string& walk, const std::string& index)
{
    std::istringstream walkLines(walk);
    std::istringstream indexLines(index);
    std::string walkLine;
    std::string indexLine;
    for (;;) {
        const bool more = static_cast<bool>(std::getline(walkLines, walkLine));
        if (static_cast<bool>(std::getline(indexLines, indexLine)) != more || walkLine != indexLine)
            return "  walk:  " + (more ? walkLine : std::string("nothing more")) + "\n  index: " + indexLine + "\n";
        if (!more)
            return "";
    }
}

std::string explain(Sequence& sequence, std::size_t step)
{
    Explain walk(step);
    sequence.play(false, walk);
    Explain index(step);
    sequence.play(true, index);
    std::string text = firstDifferentLines(walk.text, index.text);
    const auto differing = std::mismatch(walk.pages.begin(), walk.pages.end(), index.pages.begin(), index.pages.end());
    if (differing.first != walk.pages.end() || differing.second != index.pages.end()) {
        const U32 walkPage = differing.first != walk.pages.end() ? differing.first->first : ~0U;
        const U32 indexPage = differing.second != index.pages.end() ? differing.second->first : ~0U;
        char line[64];
        std::snprintf(line, sizeof line, "  memory differs in the page at 0x%x\n",
                      static_cast<unsigned>(std::min(walkPage, indexPage)));
        text += line;
    }
    return text;
}

// Writes down every operation.
class Print : public Observer
{
public:
    explicit Print(unsigned long accesses) : accesses_(accesses) {}

    std::vector<std::string> lines;

    void operation(const Operation& operation, U32, const Outcome& outcome,
                   const std::vector<std::string>& log) override
    {
        lines.push_back(operation.text() + textOf(outcome));
        for (const std::string& message : log)
            lines.push_back("  " + sim::escaped(message));
        if (machine().touches() > accesses_)
            throw SequenceEnds{};
    }
    void state(bool) override {}
    void misused() override {}

private:
    unsigned long accesses_;
};

} // namespace

Verdict run(const std::uint8_t* data, std::size_t size, unsigned long accesses)
{
    Sequence sequence(data, size);
    Note note(accesses * sequence.effort());
    sequence.play(false, note);
    Verdict verdict = note.verdict;
    verdict.walkAccesses = machine().touches();

    Compare compare(note.steps);
    sequence.play(true, compare);
    verdict.indexAccesses = machine().touches();
    verdict.operations = compare.operations;
    verdict.awake = compare.awake;
    if (compare.difference.empty() && compare.next < note.steps.size())
        compare.difference = "the sequence ends early";
    if (!compare.difference.empty())
        verdict.difference = "operation " + std::to_string(compare.operations) + ": " + compare.difference + "\n" +
                             explain(sequence, compare.next);
    return verdict;
}

std::vector<std::string> linesOf(const std::uint8_t* data, std::size_t size, bool useIndex, unsigned long accesses)
{
    Sequence sequence(data, size);
    Print observer(accesses * sequence.effort());
    sequence.play(useIndex, observer);
    return std::move(observer.lines);
}

} // namespace velmora::fuzz
