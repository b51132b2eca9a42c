// What verify reports: rules, where one is broken, and what could not be checked.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <velmora/device.hpp>

namespace velmora::tools {

enum class Rule : std::uint8_t {
    Entry,
    Counters,
    LargestRun,
    StackFree,
    RunList,
    RunLinked,
    RunOrder,
    RunMerged,
    RunInside,
    RunSize,
    MapFree,
    MapOwner,
    MapUnused,
    Apart,
    Inside,
    Fixed,
    MemoryLinked,
    MemorySize,
    HeapPieces
};

struct RuleText {
    Rule rule;
    std::string_view name; // as it is printed
    std::string_view text; // what holds in a sound area
};

// All of them, in the order of the help.
std::span<const RuleText> rules();
std::string_view nameOf(Rule rule);

// Whom a line of the report is about; the area as a whole has neither.
struct Subject {
    std::string segment; // name
    std::optional<std::uint32_t> handle;
    bool operator==(const Subject&) const = default;
};

// A rule that is broken.
struct Finding {
    Subject subject;
    MM_TAddr address = 0; // of what is wrong
    Rule rule{};
    std::string what; // without a full stop
    bool operator==(const Finding&) const = default;
};

// What was not checked.
struct Unchecked {
    Subject subject;
    std::string part; // of it: "list of free runs"
    std::string why;  // a sentence without a full stop
    bool operator==(const Unchecked&) const = default;
};

struct Report {
    std::vector<Finding> findings;
    std::vector<Unchecked> unchecked;
    std::uint32_t segments = 0; // that were looked at
    std::uint32_t runs = 0;     // free ones whose headers were compared
    std::uint32_t maps = 0;     // owner maps that were compared with the lists
    std::uint32_t memory = 0;   // stretches of free memory whose headers were compared

    void add(Report other);
    bool operator==(const Report&) const = default;
};

} // namespace velmora::tools
