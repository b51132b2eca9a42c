#include "device_command.hpp"

#include <algorithm>

#include "units.hpp"

namespace velmora::tools {

namespace {

std::string heapName()
{
    return "heap";
}

// Names and handles that could have been meant.
std::string segmentsThereAre(Device& device)
{
    std::string text;
    for (const SegmentUsage& segment : segments(device))
        text += (text.empty() ? "" : ", ") + segment.name + " (" +
                std::to_string(static_cast<std::uint32_t>(segment.handle)) + ")";
    return text.empty() ? "there are none: the library was not started" : "there are " + text;
}

} // namespace

DeviceCommand::DeviceCommand(const std::string& name, const std::string& description, const std::string& notes)
    : app_(description, "velmora-mm " + name)
{
    prepare(app_);
    app_.footer(notes);
    app_.add_option("--device", device_,
                    "the device: a node's path, or unix:SOCKET of a controller; default: $VELMORA_MM_DEVICE, then "
                    "/dev/Velmora_MM")
        ->type_name("PATH");
}

int DeviceCommand::run(const Words& words, std::ostream& out, std::ostream& errors,
                       const std::function<int(Device&)>& work)
{
    const auto sentence = [&](const std::string& what, int status) {
        errors << app_.get_name() << ": " << what << "\n";
        return status;
    };
    return runWords(app_, words, out, errors, [&] {
        std::optional<Device> device;
        try {
            device.emplace(openNode(device_));
        } catch (const std::exception& error) {
            return sentence(error.what(), kNoDevice);
        }
        try {
            return work(*device);
        } catch (const ConnectionError& error) {
            return sentence(error.what(), kNoDevice);
        } catch (const Error& error) {
            return sentence(error.what(), kFailed);
        } catch (const Refusal& error) {
            return sentence(error.what(), kFailed);
        }
    });
}

SegmentEntry findSegment(Device& device, const std::string& text)
{
    constexpr std::string_view kByName = "name=";
    const bool byName = text.starts_with(kByName);
    const auto number = byName ? std::nullopt : parseNumber(text);
    if (number == MM_HEAPHANDLE || number == MM_HEAPHANDLE_ALIAS || text == heapName())
        return {MM_HEAPHANDLE, std::nullopt};
    const std::string name = byName ? text.substr(kByName.size()) : text;
    const std::uint32_t first = number.value_or(0), last = number.value_or(MM_HEAPHANDLE - 1);
    if (first < MM_HEAPHANDLE)
        for (std::uint32_t handle = first; handle <= last; ++handle) {
            const auto entry = device.segment(static_cast<std::uint8_t>(handle));
            if (entry && entry->pfnAlloc != 0 && (number || nameOf(entry->stInfoFromApp.aubSegID) == name))
                return {handle, entry};
        }
    throw Refusal("there is no segment '" + text + "'; " + segmentsThereAre(device));
}

std::string nameOf(const MM_U8 (&id)[4])
{
    return {id, std::find(std::begin(id), std::end(id), 0)};
}

std::uint8_t parseOwner(const std::string& text)
{
    const auto value = parseNumber(text);
    if (!value || *value > 0xFF)
        throw UsageError("'" + text + "' is no owner: an ID from 0 to 255");
    return static_cast<std::uint8_t>(*value);
}

std::uint32_t parseSize(const std::string& text, const char* what)
{
    const auto value = parseBytes(text);
    if (!value || *value == 0)
        throw UsageError("'" + text + "' is no " + what + ": a number above 0, below 4G, as 4096, 64K or 8MiB");
    return static_cast<std::uint32_t>(*value);
}

std::uint32_t parseAddress(const std::string& text)
{
    const auto value = parseNumber(text);
    if (!value)
        throw UsageError("'" + text + "' is no address: a number of at most 32 bits, hexadecimal with 0x");
    return *value;
}

Json listing(const std::string& command, int version)
{
    return {{"schema", "velmora-mm " + command}, {"version", version}};
}

} // namespace velmora::tools
