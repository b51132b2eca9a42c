#include "device_command.hpp"

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <sys/stat.h>
#include <system_error>

#include <nlohmann/json.hpp>

#include "command_line.hpp"
#include "kernel_log.hpp"
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
        text += (text.empty() ? "" : ", ") + shownName(segment.name) + " (" +
                std::to_string(static_cast<std::uint32_t>(segment.handle)) + ")";
    return text.empty() ? "there are none: the library was not started" : "there are " + text;
}

// A failed check is one line on the kernel log: the last one, where the log can be read.
std::string saidOnTheLog(const Error& error, const std::string& device)
{
    if (error.result() != MM_EASSERT)
        return "";
    constexpr std::string_view kFailed = "Assertion failed! ";
    try {
        const std::vector<std::string> lines = KernelLog(device).take();
        for (auto line = lines.rbegin(); line != lines.rend(); ++line)
            if (line->starts_with(kFailed))
                return ": " + line->substr(kFailed.size());
    } catch (const std::exception&) { // it says where to look all the same
    }
    return "";
}

} // namespace

// Opens what --device says. Nothing is asked of what is no device of the manager: another driver has commands with the same
// numbers, and may heed them.
std::unique_ptr<Channel> openDevice(const std::string& name)
{
    const std::string path = deviceName(name);
    struct stat file;
    const bool isSocket = path.starts_with("unix:");
    if (!isSocket && stat(path.c_str(), &file) == 0 && !S_ISCHR(file.st_mode))
        throw std::runtime_error(path + " is no device node" +
                                 (S_ISSOCK(file.st_mode) ? "; a controller's socket is named unix:" + path : ""));
    std::unique_ptr<Channel> channel;
    try {
        channel = openNode(path);
    } catch (const std::system_error& error) {
        const std::string sentence = isSocket ? error.what() : "cannot open " + path + ": " + error.code().message();
        throw std::runtime_error(sentence +
                                 (name.empty() ? " (--device and $VELMORA_MM_DEVICE name another device)" : ""));
    }
    MM_TGetMSTInfo entry{};
    if (channel->command(MM_CMD_GET_MST, &entry, sizeof entry) == -ENOTTY)
        throw std::runtime_error(path + " is no device of the memory manager");
    return channel;
}

DeviceCommand::DeviceCommand(const std::string& name, const std::string& description, const std::string& notes)
    : app_(std::make_unique<CLI::App>(description, "velmora-mm " + name))
{
    prepare(*app_);
    app_->footer(notes);
    option("--device", "PATH", into(device_),
           "the device: a node's path, or unix:SOCKET of a controller; default: $VELMORA_MM_DEVICE, then "
           "/dev/Velmora_MM");
}

DeviceCommand::~DeviceCommand() = default;

void DeviceCommand::argument(const std::string& name, const Reader& reader, const std::string& help)
{
    app_->add_option_function<std::string>(name, reader, help)->type_name("")->required();
}

void DeviceCommand::optionalArgument(const std::string& name, const Reader& reader, const std::string& help)
{
    app_->add_option_function<std::string>(name, reader, help)->type_name("");
}

void DeviceCommand::arguments(const std::string& name, Words& words, const std::string& help)
{
    app_->add_option(name, words, help)->type_name("")->required();
}

void DeviceCommand::option(const std::string& name, const std::string& value, const Reader& reader,
                           const std::string& help)
{
    app_->add_option_function<std::string>(name, reader, help)->type_name(value);
}

void DeviceCommand::flag(const std::string& name, bool& target, const std::string& help)
{
    CLI::Option* const added = app_->add_flag(name, target, help);
    if (help.empty())
        added->group("");
}

void DeviceCommand::jsonFlag(bool& json)
{
    flag("--json", json, "print it for programs; docs/json.md describes the fields");
}

void DeviceCommand::forceFlag(bool& force)
{
    flag("--force", force, "do it all the same, whatever speaks against it");
}

int DeviceCommand::run(const Words& words, std::ostream& out, std::ostream& errors,
                       const std::function<int(Device&)>& work)
{
    const auto sentence = [&](const std::string& what, int status) {
        errors << app_->get_name() << ": " << what << "\n";
        return status;
    };
    return runWords(*app_, words, out, errors, [&] {
        if (check_)
            check_();
        std::optional<Device> device;
        try {
            device.emplace(openDevice(device_));
        } catch (const std::exception& error) {
            return sentence(error.what(), kNoDevice);
        }
        try {
            return work(*device);
        } catch (const UsageError&) {
            throw;
        } catch (const std::ios_base::failure&) {
            throw;
        } catch (const ConnectionError& error) {
            return sentence(error.what(), kNoDevice);
        } catch (const Error& error) {
            return sentence(error.what() + saidOnTheLog(error, device_), kFailed);
        } catch (const std::runtime_error& error) {
            return sentence(error.what(), kFailed);
        }
    });
}

std::string deviceNotes(const std::string& notes, const std::string& examples)
{
    return notes + (notes.empty() ? "" : "\n") +
           "exit status: 0 done, 1 refused, or found wrong, 2 unusable arguments, 3 no device, or it went away\n\n"
           "examples\n" +
           examples;
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
    throw Refusal("there is no segment '" + shownName(text) + "'; " + segmentsThereAre(device));
}

std::string nameOf(const MM_U8 (&id)[4])
{
    return {id, std::find(std::begin(id), std::end(id), 0)};
}

std::string segmentWord(const SegmentEntry& segment)
{
    if (!segment.entry)
        return heapName();
    const std::string name = nameOf(segment.entry->stInfoFromApp.aubSegID);
    const bool isWord = !name.empty() && std::ranges::all_of(name, [](char byte) { return byte > ' ' && byte <= '~'; });
    const bool isClear = !parseNumber(name) && name != heapName() && !name.starts_with('-');
    return isWord && isClear ? name : std::to_string(segment.handle);
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

std::uint32_t parseCount(const std::string& text)
{
    const auto value = parseNumber(text);
    if (!value)
        throw UsageError("'" + text + "' is no number");
    return *value;
}

Json listing(const std::string& command, int version)
{
    return {{"schema", "velmora-mm " + command}, {"version", version}};
}

void printListing(std::ostream& out, const Json& listing)
{
    out << listing.dump(2, ' ', false, Json::error_handler_t::replace) << "\n";
}

} // namespace velmora::tools
