#include "kernel_log.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/klog.h>
#include <system_error>
#include <unistd.h>

#include <velmora/controller.hpp>

#include "lib/socket_channel.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kMessages = "/dev/kmsg";
constexpr std::size_t kRecordBytes = 8192; // the longest record of /dev/kmsg

[[noreturn]] void failRead()
{
    const int error = errno;
    throw std::system_error(error, std::generic_category(),
                            std::string("the kernel log cannot be read: ") + std::strerror(error));
}

// Takes `open`, then bytes of `inside`, a digit among them, then `close` off the front of a line, if that is how it begins.
std::string_view withoutFront(std::string_view line, char open, std::string_view inside, char close)
{
    const std::size_t end = line.starts_with(open) ? line.find_first_not_of(inside, 1) : line.npos;
    const bool isFront =
        end != line.npos && line[end] == close && line.substr(0, end).find_first_of("0123456789") != line.npos;
    return isFront ? line.substr(end + 1) : line;
}

// A line without its level "<4>", its time "[   12.345678]" and its caller "[  T12]".
std::string_view withoutFronts(std::string_view line)
{
    line = withoutFront(line, '<', "0123456789", '>');
    std::string_view bare = withoutFront(line, '[', " .0123456789", ']');
    if (bare.size() == line.size())
        return line;
    bare = withoutFront(bare, '[', "TC 0123456789", ']');
    return bare.starts_with(' ') ? bare.substr(1) : bare;
}

// The kernel writes a byte that is no printable character as \xNN.
std::string unescaped(std::string_view text)
{
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        unsigned value = 0;
        const char* const digits = text.data() + i + 2;
        if (text.substr(i).starts_with("\\x") && i + 4 <= text.size() &&
            std::from_chars(digits, digits + 2, value, 16).ptr == digits + 2) {
            bytes += static_cast<char>(value);
            i += 3;
        } else {
            bytes += text[i];
        }
    }
    return bytes;
}

} // namespace

std::optional<ManagedMemory> managedMemoryIn(const std::vector<std::string>& messages)
{
    std::optional<ManagedMemory> memory;
    for (const std::string& message : messages) {
        unsigned first, past;
        const std::size_t at = message.find("bigphysares : ");
        if (at != message.npos && std::sscanf(message.c_str() + at, "bigphysares : 0x%x ~ 0x%x", &first, &past) == 2)
            memory = {first, past};
    }
    return memory;
}

struct KernelLog::Source {
    virtual ~Source() = default;
    virtual std::vector<std::string> take() = 0;
};

struct KernelLog::Controllers : Source {
    explicit Controllers(const std::string& device) : log(device) {}

    std::vector<std::string> take() override
    {
        std::vector<std::string> messages = log.take();
        for (std::string& message : messages)
            if (message.ends_with('\n'))
                message.pop_back();
        return messages;
    }

    sim::Log log;
};

// Message by message, as kernels give their log from 3.5 on.
struct KernelLog::Messages : Source {
    explicit Messages(int descriptor) : file(descriptor) {}
    ~Messages() override { close(file); }

    // -1 where this kernel has no such log.
    static int open()
    {
        const int file = ::open(kMessages, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (file < 0)
            return -1;
        char record[kRecordBytes];
        if (::read(file, record, sizeof record) < 0 && errno != EAGAIN && errno != EPIPE) {
            ::close(file);
            return -1;
        }
        lseek(file, 0, SEEK_SET);
        return file;
    }

    std::vector<std::string> take() override
    {
        std::vector<std::string> messages;
        std::array<char, kRecordBytes> record;
        for (;;) {
            const ssize_t bytes = ::read(file, record.data(), record.size());
            if (bytes < 0 && errno == EPIPE && started)
                throw std::runtime_error("the kernel log has lost messages");
            if (bytes < 0 && (errno == EINTR || errno == EPIPE))
                continue;
            started = true;
            if (bytes <= 0)
                return messages;
            std::string text = recordText({record.data(), static_cast<std::size_t>(bytes)});
            if (!text.empty())
                messages.push_back(std::move(text));
        }
    }

    int file;
    bool started = false; // what was overwritten before is no loss
};

// As one text, of which each reading has what the kernel still keeps.
struct KernelLog::Text : Source {
    Text() { read(); }

    std::vector<std::string> take() override
    {
        std::vector<std::string> now = read();
        std::vector<std::string> added = addedLines(lines, now);
        lines = std::move(now);
        return added;
    }

    static std::vector<std::string> read()
    {
        constexpr int kReadAll = 3, kBufferBytes = 10; // syslog(2)
        std::string text;
        int bytes = klogctl(kBufferBytes, nullptr, 0);
        if (bytes >= 0) {
            text.resize(static_cast<std::size_t>(bytes));
            bytes = klogctl(kReadAll, text.data(), bytes);
        }
        if (bytes < 0)
            failRead();
        text.resize(static_cast<std::size_t>(bytes));
        return logLines(text);
    }

    std::vector<std::string> lines;
};

std::string deviceName(const std::string& option)
{
    return velmora::deviceName(option);
}

KernelLog::KernelLog(const std::string& device)
{
    const std::string name = deviceName(device);
    if (socketIn(name))
        source_ = std::make_unique<Controllers>(name);
    else if (const int file = Messages::open(); file >= 0)
        source_ = std::make_unique<Messages>(file);
    else
        source_ = std::make_unique<Text>();
}

KernelLog::~KernelLog() = default;

std::vector<std::string> KernelLog::take()
{
    return source_->take();
}

std::vector<std::string> logLines(const std::string& text)
{
    std::vector<std::string> lines;
    std::string_view rest = text;
    while (!rest.empty()) {
        const std::size_t end = rest.find('\n');
        lines.emplace_back(withoutFronts(rest.substr(0, end)));
        rest.remove_prefix(end == rest.npos ? rest.size() : end + 1);
    }
    return lines;
}

std::vector<std::string> addedLines(const std::vector<std::string>& earlier, const std::vector<std::string>& later)
{
    // Lines may repeat, so the longest end of the earlier reading with which the later one begins is what both have.
    for (auto kept = earlier.begin(); kept != earlier.end(); ++kept)
        if (earlier.end() - kept <= std::ssize(later) && std::equal(kept, earlier.end(), later.begin()))
            return {later.begin() + (earlier.end() - kept), later.end()};
    return later;
}

std::string recordText(const std::string& record)
{
    constexpr unsigned kFacilityShift = 3; // 0 is the kernel's
    unsigned priority = 0;
    const auto [after, error] = std::from_chars(record.data(), record.data() + record.size(), priority);
    const std::size_t begin = record.find(';');
    if (error != std::errc() || *after != ',' || priority >> kFacilityShift != 0 || begin == record.npos)
        return {};
    const std::string_view text = std::string_view(record).substr(begin + 1);
    return unescaped(text.substr(0, text.find('\n')));
}

} // namespace velmora::tools
