// A recording: what programs asked of a device and what they were answered, as a session script that asks it again and expects
// the same. Allocations are variables, segments have their names; what cannot be said by name is said in bytes.
//
// The first line says what the file is and the last one that it is whole: a recording that was cut off lacks it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include <velmora/device.hpp>

#include "session_lines.hpp"

namespace velmora::tools {

constexpr std::string_view kRecordingBegins = "# velmora-mm recording 1";
constexpr std::string_view kRecordingEnds = "# end of recording";

// What reached the device for one command of a program: the bytes of its record that the program had, and how many of them it
// could write.
struct Asked {
    Request request; // record: as many bytes as there were
    std::uint32_t address = 0;
    std::size_t writable = 0;
};

// Writes the lines. Knows what was allocated and which segments there are.
class RecordingWriter : public Names
{
public:
    // In front of all: what the file is, and a controller with this area (kernel virtual addresses, without the margins).
    static std::string beginning(std::uint32_t areaStart, std::uint32_t areaEnd);
    static std::string end() { return std::string(kRecordingEnds) + "\n"; }

    // Who asks from here on: a comment that a plan reads.
    static std::string asker(const std::string& program, int process)
    {
        return "# asked by " + sim::escaped(program) + " [" + std::to_string(process) + "]\n";
    }

    // Lines that make the state that a device has now, as far as commands can make it, and comments on what they cannot. Later
    // lines know these segments and blocks.
    std::string state(Device& device);

    // The lines of a request, to be written before it goes on; and those of its answer.
    std::string asked(const Asked& asked);
    std::string answered(const Answer& answer);

    std::optional<std::string> segmentName(std::uint32_t handle) const override;
    std::optional<Known> allocationAt(std::uint32_t address) const override;

private:
    std::string bytes(const Asked& asked);
    std::string made(const Request& request, const Answer& answer);
    std::string stateOf(Device& device, const SegmentUsage& usage);
    void remember(const Request& request, const Answer& answer);

    std::map<std::uint32_t, std::string> segments_; // name by handle
    std::map<std::uint32_t, Known> allocations_;    // by start; none overlaps another
    std::uint32_t variables_ = 0;
    Request last_; // whose answer comes next
    enum class Form { Named, Bytes, Silent } form_ = Form::Silent;
};

} // namespace velmora::tools
