#include "kernel_log.hpp"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/klog.h>
#include <unistd.h>

#include "board.hpp"
#include "harness.hpp"

namespace target {

namespace {

constexpr char kLogDevice[] = "/dev/kmsg";

// syslog(2)
constexpr int kRead = 2;
constexpr int kReadAll = 3;
constexpr int kUnreadBytes = 9;
constexpr int kBufferBytes = 10;

// A message without a line end stays open for more text, unseen, until the next one is printed.
constexpr char kMark[] = "the test has read up to here";

void closeLastMessage()
{
    const int file = open(kLogDevice, O_WRONLY | O_CLOEXEC);
    const std::string mark = std::string("<6>") + kMark + "\n";
    [[maybe_unused]] const ssize_t written = write(file, mark.data(), mark.size());
    close(file);
}

// The log's device when it can be read, message by message; else -1.
int openMessages()
{
    if (board().oldCalls)
        return -1;
    const int file = open(kLogDevice, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    char record[8192];
    if (file >= 0 && read(file, record, sizeof record) < 0 && errno != EAGAIN && errno != EPIPE) {
        close(file);
        return -1;
    }
    return file;
}

bool messagesAreKeptApart()
{
    static const bool apart = [] {
        const int file = openMessages();
        close(file);
        return file >= 0;
    }();
    return apart;
}

bool messagesEndAtZeroBytes()
{
    return kernelIsBefore(3, 5);
}

// The kernel writes a byte that is no printable character as \xNN, and a backslash too.
std::string unescaped(std::string_view text)
{
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        unsigned value;
        if (text[i] == '\\' && i + 3 < text.size() && text[i + 1] == 'x' &&
            std::sscanf(std::string(text.substr(i + 2, 2)).c_str(), "%2x", &value) == 1) {
            bytes += static_cast<char>(value);
            i += 3;
        } else {
            bytes += text[i];
        }
    }
    return bytes;
}

// What a kernel says when the emulator was not given the processor for a while.
bool isAboutTiming(const std::string& message)
{
    for (const char* const begin : {"hrtimer: interrupt took", "clocksource: ", "sched: ", "workqueue: ", "perf: "})
        if (message.starts_with(begin))
            return true;
    return false;
}

bool isOfInterest(const std::string& message)
{
    return message != kMark && !isAboutTiming(message);
}

int syslogCall(int type, std::string* text = nullptr)
{
    const int result =
        klogctl(type, text != nullptr ? text->data() : nullptr, text != nullptr ? static_cast<int>(text->size()) : 0);
    if (result < 0)
        throw Failure("syslog " + std::to_string(type) + " answers " + std::to_string(-errno));
    return result;
}

std::string wholeText()
{
    std::string text(static_cast<std::size_t>(syslogCall(kBufferBytes)), '\0');
    text.resize(static_cast<std::size_t>(syslogCall(kReadAll, &text)));
    return text;
}

std::string unreadText()
{
    std::string text;
    const int buffer = syslogCall(kBufferBytes);
    while (const int unread = syslogCall(kUnreadBytes)) {
        if (unread >= buffer)
            throw Failure("the kernel log has lost messages");
        std::string part(static_cast<std::size_t>(unread) + 1024, '\0');
        part.resize(static_cast<std::size_t>(syslogCall(kRead, &part)));
        text += part;
    }
    return text;
}

// Takes "<digits>" off the front of a line, or "[ digits.digits] ", or "[T12] ".
std::string_view withoutPrefix(std::string_view line, char open, std::string_view inside, std::string_view close)
{
    const std::size_t end = line.empty() || line[0] != open ? line.npos : line.find_first_not_of(inside, 1);
    return end != line.npos && end > 1 && line.substr(end).starts_with(close) ? line.substr(end + close.size()) : line;
}

} // namespace

Lines linesOf(std::string_view logText)
{
    Lines lines;
    while (!logText.empty()) {
        const std::size_t end = logText.find('\n');
        std::string_view line = withoutPrefix(logText.substr(0, end), '<', "0123456789", ">");
        const std::size_t timed = line.size();
        line = withoutPrefix(line, '[', " .0123456789", "] ");
        if (line.size() != timed)
            line = withoutPrefix(line, '[', "TC 0123456789", "] ");
        lines.emplace_back(line);
        logText.remove_prefix(end == logText.npos ? logText.size() : end + 1);
    }
    return lines;
}

Lines comparable(const Lines& messages)
{
    if (messagesAreKeptApart())
        return messages;
    std::string text;
    for (const std::string& message : messages) {
        const std::size_t end = messagesEndAtZeroBytes() ? message.find('\0') : message.npos;
        for (const char byte : std::string_view(message).substr(0, end))
            if (byte != '\n')
                text += byte;
    }
    return {text};
}

KernelLog::KernelLog(From from) : file_(openMessages()), fromBoot_(from == From::Boot)
{
    closeLastMessage(); // it belongs to what was before
    if (file_ >= 0)
        lseek(file_, 0, fromBoot_ ? SEEK_SET : SEEK_END);
    else if (!fromBoot_)
        unreadText();
}

KernelLog::~KernelLog()
{
    if (file_ >= 0)
        close(file_);
}

Lines KernelLog::take()
{
    closeLastMessage();
    Lines lines = file_ >= 0 ? takeMessages() : takeLines();
    std::erase_if(lines, [](const std::string& line) { return !isOfInterest(line); });
    return lines;
}

Lines KernelLog::takeMessages()
{
    Lines messages;
    char record[8192];
    for (;;) {
        const ssize_t got = read(file_, record, sizeof record);
        if (got < 0 && errno == EPIPE)
            throw Failure("the kernel log has lost messages");
        if (got <= 0)
            return messages;
        const std::string_view whole(record, static_cast<std::size_t>(got));
        const std::size_t begin = whole.find(';') + 1;
        messages.push_back(unescaped(whole.substr(begin, whole.find('\n', begin) - begin)));
    }
}

Lines KernelLog::takeLines()
{
    if (!fromBoot_)
        return linesOf(unreadText());
    fromBoot_ = false;
    Lines lines = linesOf(wholeText());
    unreadText();
    return lines;
}

Lines troubles(const Lines& messages)
{
    static const char* const signs[] = {"Oops",
                                        "BUG:",
                                        "WARNING:",
                                        "Unable to handle",
                                        "scheduling while atomic",
                                        "sleeping function",
                                        "lockdep:",
                                        "possible circular locking",
                                        "inconsistent lock state",
                                        "Call trace",
                                        "Backtrace:",
                                        "INFO: ",
                                        "Internal error",
                                        "soft lockup",
                                        "hard LOCKUP",
                                        "hung_task",
                                        "blocked for more than",
                                        "Bad page",
                                        "kernel BUG at",
                                        "Kernel panic"};
    Lines found;
    for (const std::string& message : messages)
        for (const char* const sign : signs)
            if (message.find(sign) != message.npos) {
                found.push_back(message);
                break;
            }
    return found;
}

} // namespace target
