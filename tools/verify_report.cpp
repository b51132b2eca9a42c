#include "verify_report.hpp"

#include <iterator>

namespace velmora::tools {

namespace {

constexpr RuleText kRules[] = {
    {Rule::Entry, "entry", "the table's entry has its blocks, and the owner map, between the segment's bounds"},
    {Rule::Counters, "counters", "free and allocated blocks together are all blocks"},
    {Rule::LargestRun, "largest-run", "the table's largest run is the longest free run"},
    {Rule::StackFree, "stack-free", "what a stack has free is one run"},
    {Rule::RunList, "run-list", "the segment has one list of free runs, and it has the blocks that the table has free"},
    {Rule::RunLinked, "run-linked", "a run's links lead to the next higher and the next lower run, and back"},
    {Rule::RunOrder, "run-order", "runs follow each other in the order of addresses"},
    {Rule::RunMerged, "run-merged", "no free run touches the next"},
    {Rule::RunInside, "run-inside", "runs, and what their links lead to, are blocks of the segment"},
    {Rule::RunSize, "run-size", "a run has as many blocks as are free there"},
    {Rule::MapFree, "map-free", "a free block has no owner"},
    {Rule::MapOwner, "map-owner", "in an owner map of 2, 4 or 8 bits every allocated block has an owner"},
    {Rule::MapUnused, "map-unused", "bits of an owner map that belong to no block are 0"},
    {Rule::Apart, "apart", "no two segments share memory"},
    {Rule::Inside, "inside", "segments lie in managed memory, float ones above the fixed ones"},
    {Rule::Fixed, "fixed", "a fixed segment lies where the table of fixed segments has its name"},
    {Rule::MemoryLinked, "memory-linked", "the stretches of free memory are linked both ways, in order"},
    {Rule::MemorySize, "memory-size", "a stretch of free memory ends where the next segment begins"},
    {Rule::HeapPieces, "heap-pieces", "pieces of the heap lie in managed memory that no segment has"},
};

template <class T> void append(std::vector<T>& all, std::vector<T>& more)
{
    all.insert(all.end(), std::make_move_iterator(more.begin()), std::make_move_iterator(more.end()));
}

} // namespace

std::span<const RuleText> rules()
{
    return kRules;
}

std::string_view nameOf(Rule rule)
{
    return kRules[static_cast<std::size_t>(rule)].name;
}

void Report::add(Report other)
{
    append(findings, other.findings);
    append(unchecked, other.unchecked);
    segments += other.segments;
    runs += other.runs;
    maps += other.maps;
    memory += other.memory;
}

} // namespace velmora::tools
