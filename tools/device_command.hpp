// What the commands that ask a device have in common: --device, segments by name or handle, and how a refusal reads.
//
//   int phys(const Words& words, std::ostream& out, std::ostream& errors)
//   {
//       DeviceCommand command("phys", kDescription, deviceNotes(kNotes, kExamples));
//       std::string segment;
//       command.argument("SEGMENT", into(segment), kSegmentHelp);
//       return command.run(words, out, errors, [&](velmora::Device& device) {
//           const SegmentEntry entry = findSegment(device, segment);
//           ...
//           return kDone;
//       });
//   }
//
// A command that asks more of its command line than is offered here includes tools/command_line.hpp and takes app(); one that
// prints a listing includes <nlohmann/json.hpp>. Both take a compiler long, so they are not here.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include <nlohmann/json_fwd.hpp>
#include <velmora/device.hpp>

#include "tools/command.hpp"

namespace CLI {
class App;
}

namespace velmora::tools {

// Why a command cannot do what it was asked; what() is the sentence. Exit status kFailed.
struct Refusal : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What becomes of an option's word: it is read as it is parsed, so that a mistake is found before the device is asked. Throws
// UsageError when it cannot be read.
using Reader = std::function<void(const std::string& word)>;

class DeviceCommand
{
public:
    DeviceCommand(const std::string& name, const std::string& description, const std::string& notes);
    ~DeviceCommand();

    // Words by their place, in the order of these calls; one that must be there, one that need not, and all that are left.
    void argument(const std::string& name, const Reader& reader, const std::string& help);
    void optionalArgument(const std::string& name, const Reader& reader, const std::string& help);
    void arguments(const std::string& name, Words& words, const std::string& help);
    // An option with a value, which the help calls `value`; and one without. Flags without a help text are not shown.
    void option(const std::string& name, const std::string& value, const Reader& reader, const std::string& help);
    void flag(const std::string& name, bool& target, const std::string& help);
    // --json, --force.
    void jsonFlag(bool& json);
    void forceFlag(bool& force);

    // What has to hold of all the words together: looked at before the device is opened. Throws UsageError where it does not.
    void require(std::function<void()> check) { check_ = std::move(check); }

    CLI::App& app() { return *app_; }
    // What --device says; empty: what openNode() finds without it.
    const std::string& device() const { return device_; }

    // Parses the words, opens the device and does the work. UsageError and Refusal, what the library throws, and a device that
    // is not there or went away become a line on errors and the exit status that command.hpp has for them.
    int run(const Words& words, std::ostream& out, std::ostream& errors, const std::function<int(Device&)>& work);

private:
    std::unique_ptr<CLI::App> app_;
    std::string device_;
    std::function<void()> check_;
};

// The end of a help text: what else there is to say (may be empty), the exit statuses of every command that asks a device,
// and examples, one a line.
std::string deviceNotes(const std::string& notes, const std::string& examples);

// A segment as the command line names it: a name, or a handle as a number. NAME means the segment of that name even where
// it looks like a number when it stands behind "name=".
struct SegmentEntry {
    std::uint32_t handle = 0;
    std::optional<MM_TMMSegInfoWire> entry; // the manager's; none for the heap, whose entry no command shows
};

// Opens what --device says. Throws std::runtime_error with a sentence when it is no device of the manager.
std::unique_ptr<Channel> openDevice(const std::string& name);

constexpr const char* kSegmentHelp = "a segment: its name, its handle (0 to 48), or heap";

// Finds it; Refusal with the names that there are when there is none.
SegmentEntry findSegment(Device& device, const std::string& text);

// The name in a table's entry, without what fills it up.
std::string nameOf(const MM_U8 (&id)[4]);
// The word by which findSegment() finds an entry again: its name, or its handle where that would be taken for something else.
std::string segmentWord(const SegmentEntry& segment);

// An owner's ID, 0 to 255; UsageError when text is none.
std::uint8_t parseOwner(const std::string& text);
// Bytes, above 0; UsageError when text is no such number.
std::uint32_t parseSize(const std::string& text, const char* what);
// An address; UsageError when text is none.
std::uint32_t parseAddress(const std::string& text);
// How many, 0 among them; UsageError when text is no such number.
std::uint32_t parseCount(const std::string& text);

// A listing for programs: {"schema": "velmora-mm status", "version": 1, ...fields}. docs/json.md describes each; the version
// changes when a field goes or changes its meaning, not when one is added.
// Sizes are numbers, in bytes unless the name says blocks; addresses are strings, "0x95312000", which commands take as they
// are; what is not known is null.
using Json = nlohmann::ordered_json;
Json listing(const std::string& command, int version);
// Prints it on lines of its own, whatever bytes a name has.
void printListing(std::ostream& out, const Json& listing);

// Readers. Target: what the function of the same purpose above gives, or std::optional of it.
inline Reader into(std::string& target)
{
    return [&target](const std::string& word) { target = word; };
}
template <class Target> Reader sizeInto(Target& target, const char* what = "number of bytes")
{
    return [&target, what](const std::string& word) { target = parseSize(word, what); };
}
template <class Target> Reader ownerInto(Target& target)
{
    return [&target](const std::string& word) { target = parseOwner(word); };
}
template <class Target> Reader countInto(Target& target)
{
    return [&target](const std::string& word) { target = parseCount(word); };
}

} // namespace velmora::tools
