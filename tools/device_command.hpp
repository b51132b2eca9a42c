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

// An owner's ID, 0 to 255; UsageError when text is none.
std::uint8_t parseOwner(const std::string& text);
// Bytes, above 0; UsageError when text is no such number.
std::uint32_t parseSize(const std::string& text, const char* what);
// An address; UsageError when text is none.
std::uint32_t parseAddress(const std::string& text);

// A listing for programs: {"schema": "velmora-mm status", "version": 1, ...fields}. docs/json.md describes each; the version
// changes when a field goes or changes its meaning, not when one is added.
using Json = nlohmann::ordered_json;
Json listing(const std::string& command, int version);

} // namespace velmora::tools
