// The kernel log of the controller, as the tests read it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace target {

using Lines = std::vector<std::string>;

// Reads what was printed since it was made, or since the kernel started.
//
// From 3.5 on kernels give their log message by message (/dev/kmsg), without the newline at the end of each: they keep
// a line end, not the byte. Before, it is one text (syslog(2)): a message with newlines in it looks like several lines,
// one without a newline at its end and the next one like a single line, and nothing of a message is there from its
// first zero byte on. comparable() makes expectations hold for both.
class KernelLog
{
public:
    enum class From { Now, Boot };
    explicit KernelLog(From from = From::Now);
    KernelLog(const KernelLog&) = delete;
    KernelLog& operator=(const KernelLog&) = delete;
    ~KernelLog();

    // Messages since the last call, or lines, where the log does not keep messages apart.
    Lines take();

private:
    Lines takeMessages();
    Lines takeLines();

    int file_; // /dev/kmsg, or -1
    bool fromBoot_;
};

// Messages in the form in which two lists of them can be compared: as they are where the log keeps messages apart, else
// as one text without its line ends.
Lines comparable(const Lines& messages);

// The lines of a log text, without level, time and caller in front of each: "<4>[   12.345678] text".
Lines linesOf(std::string_view logText);

// Messages that a healthy kernel never prints, out of the given ones.
Lines troubles(const Lines& messages);

} // namespace target

#define CHECK_LOGGED(messages, expected) CHECK_EQUAL(target::comparable(messages), target::comparable(expected))
