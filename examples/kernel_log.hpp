// The kernel log of a real controller, as syslog(2) gives it.
#pragma once

#include <string>
#include <vector>

namespace printjob {

// A line without what the kernel puts in front of a message: its level and, unless the kernel was started with
// printk.time=0, the time: "<4>[   12.345678] text", "<4>text".
std::string withoutPrefix(const std::string& line);

// The lines of a later reading that an earlier one does not have. The log may have lost its oldest lines in between.
std::vector<std::string> addedLines(const std::vector<std::string>& earlier, const std::vector<std::string>& later);

class KernelLog
{
public:
    // Messages since the last call (at first: all that there are), without what stands in front of them. Throws
    // std::system_error when this program may not read the log.
    std::vector<std::string> takeMessages();

private:
    std::vector<std::string> lines_; // as they were read last
};

} // namespace printjob
