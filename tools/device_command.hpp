// What the commands that ask a device have in common: --device, segments by name or handle, and how a refusal reads.
//
//   int free(const Words& words, std::ostream& out, std::ostream& errors)
//   {
//       DeviceCommand command("free", kDescription, kNotes);
//       std::string segment;
//       command.app().add_option("SEGMENT", segment, kSegmentHelp)->required();
//       return command.run(words, out, errors, [&](velmora::Device& device) {
//           const SegmentEntry entry = entryOf(device, segment);
//           ...
//           return kDone;
//       });
//   }
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>
#include <velmora/device.hpp>

#include "tools/command_line.hpp"

namespace velmora::tools {

// Why a command cannot do what it was asked; what() is the sentence. Exit status kFailed.
struct Refusal : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class DeviceCommand
{
public:
    DeviceCommand(const std::string& name, const std::string& description, const std::string& notes);

    CLI::App& app() { return app_; }
    // What --device says; empty: what openNode() finds without it.
    const std::string& device() const { return device_; }

    // Parses the words, opens the device and does the work. UsageError and Refusal, what the library throws, and a device that
    // is not there or went away become a line on errors and the exit status that command.hpp has for them.
    int run(const Words& words, std::ostream& out, std::ostream& errors, const std::function<int(Device&)>& work);

private:
    CLI::App app_;
    std::string device_;
};

// The end of a help text: what else there is to say (may be empty), the exit statuses of every command that asks a device,
// and examples, one a line.
std::string deviceNotes(const std::string& notes, const std::string& examples);

// Options whose words are read as they are parsed, so that a mistake is found before the device is asked. Target: the number,
// or std::optional of it.
template <class Target> CLI::Option* addSize(CLI::App& app, const std::string& name, Target& target, const char* help);
template <class Target>
CLI::Option* addAddress(CLI::App& app, const std::string& name, Target& target, const char* help);
template <class Target> CLI::Option* addOwner(CLI::App& app, const std::string& name, Target& target, const char* help);
// --json.
CLI::Option* addJson(CLI::App& app, bool& json);

// A segment as the command line names it: a name, or a handle as a number. NAME means the segment of that name even where
// it looks like a number when it stands behind "name=".
struct SegmentEntry {
    std::uint32_t handle = 0;
    std::optional<MM_TMMSegInfoWire> entry; // the manager's; none for the heap, whose entry no command shows
};
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

// A listing for programs: {"schema": "velmora-mm status", "version": 1, ...fields}. docs/json.md describes each; the version
// changes when a field goes or changes its meaning, not when one is added.
// Sizes are numbers, in bytes unless the name says blocks; addresses are strings, "0x95312000", which commands take as they
// are; what is not known is null.
using Json = nlohmann::ordered_json;
Json listing(const std::string& command, int version);
// Prints it on lines of its own, whatever bytes a name has.
void printListing(std::ostream& out, const Json& listing);

template <class Target> CLI::Option* addSize(CLI::App& app, const std::string& name, Target& target, const char* help)
{
    const std::string what = name.substr(name.find_last_of('-') + 1);
    return app
        .add_option_function<std::string>(
            name, [&target, what](const std::string& text) { target = parseSize(text, what.c_str()); }, help)
        ->type_name("SIZE");
}

template <class Target>
CLI::Option* addAddress(CLI::App& app, const std::string& name, Target& target, const char* help)
{
    return app
        .add_option_function<std::string>(
            name, [&target](const std::string& text) { target = parseAddress(text); }, help)
        ->type_name("ADDRESS");
}

template <class Target> CLI::Option* addOwner(CLI::App& app, const std::string& name, Target& target, const char* help)
{
    return app
        .add_option_function<std::string>(
            name, [&target](const std::string& text) { target = parseOwner(text); }, help)
        ->type_name("ID");
}

} // namespace velmora::tools
