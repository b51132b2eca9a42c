// Lines of a session script that say what they mean by name: "malloc segment=BAND bytes=64K owner=1 -> $a". One table has, for
// each, the command of the device and where the line's words stand in that command's record.
//
//   text -> NamedLine -> Request    to run a line; Meanings says what its names stand for
//   Request -> NamedLine -> text    to write down what a program asked; Names says what its numbers are called
//
// docs/session-format.md has the language.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "controller/session_text.h"

namespace velmora::tools {

// Request::number of a mapping, whose record is a MappingRecord. No command of the device has it.
constexpr std::uint32_t kMapping = 0;

struct MappingRecord {
    std::uint32_t address;
    std::uint32_t bytes;
    std::uint8_t sync; // 1: as a descriptor opened with O_SYNC maps
};

// What a program asks of a device, and what it is answered. The record is the command's, whole; in an answer as it came back.
struct Request {
    std::uint32_t number = 0;
    std::vector<std::uint8_t> record;
};
struct Answer {
    std::int32_t result = 0; // a code of the manager, or a negative kernel code
    std::vector<std::uint8_t> record;
};

// A record's bytes as what they are; zeros where there are fewer.
template <class Record> Record as(const std::vector<std::uint8_t>& bytes)
{
    Record record{};
    if (!bytes.empty())
        std::memcpy(&record, bytes.data(), std::min(bytes.size(), sizeof record));
    return record;
}

// Memory that a line allocated.
struct Allocation {
    std::uint32_t handle = 0; // of the segment that was asked
    std::uint32_t start = 0;
    std::uint32_t bytes = 0; // that were asked for

    bool contains(std::uint32_t address) const { return address >= start && address - start < bytes; }
};

struct Form; // a row of the table

struct NamedLine {
    const Form* form = nullptr;
    std::vector<std::string>
        values;         // one for each field of the form, as they are written; empty: the line does not say
    std::string result; // the variable behind "->" with its '$'; empty: none

    std::uint32_t number() const;                         // of the command
    const std::string& value(std::string_view key) const; // of a field that the form has
};

// What the names of a line stand for. Each throws sim::SyntaxError where there is no such thing.
class Meanings
{
public:
    virtual ~Meanings() = default;
    virtual std::uint32_t handleOf(const std::string& segmentName) = 0;
    virtual bool isKnown(const std::string& variable) = 0;
    virtual std::uint32_t valueOf(const std::string& variable) = 0;
    virtual Allocation allocationOf(const std::string& variable) = 0;
};

// What numbers are called.
class Names
{
public:
    virtual ~Names() = default;
    // nullopt where the segment has no name that would be found again.
    virtual std::optional<std::string> segmentName(std::uint32_t handle) const = 0;
    struct Known {
        std::string variable;
        Allocation allocation;
    };
    // The allocation that an address lies in.
    virtual std::optional<Known> allocationAt(std::uint32_t address) const = 0;
};

// Is it such a line? "fill" and "mmap" are words of both languages: they are here where a word has a '=' or begins with '$'.
bool isNamed(const std::vector<sim::Word>& words);

// Throws sim::SyntaxError.
NamedLine parseNamed(const std::vector<sim::Word>& words);
std::string textOf(const NamedLine& line);

// The command of a line. Bytes of the record that the manager does not read are 0. Throws sim::SyntaxError.
Request requestOf(const NamedLine& line, Meanings& meanings);
// The line of a whole record; nullopt for a command that has none. result stays empty.
std::optional<NamedLine> lineOf(const Request& request, const Names& names);

// An answer in words, without the "= " in front: "0x95400000", "no room", "refused EASSERT".
std::string wordsOf(const Request& request, const Answer& answer);

// A variable's name: '$', then letters, digits and '_'.
bool isVariable(std::string_view text);
// The variable of a place ("$a" of "$a+0x1000"); empty where the place is a number.
std::string variableOf(const std::string& place);

// The variable that a recording gives to its Nth allocation, N from 1.
std::string recordedVariable(std::uint32_t n);

// Four bytes of a name as they are written: what is no letter, digit or one of "$_-." is \xNN; so is the first character of a name
// that would be taken for a number, for the heap or for a variable of a recording.
std::string nameText(const std::uint8_t* id);

} // namespace velmora::tools
