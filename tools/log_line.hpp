// What a log puts around a message: timestamps, priorities, names of host and sender.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace velmora::tools {

// The texts in a line of a log, what the log put in front taken off: mostly one, more where the log has escaped the ends of
// lines. Knows what dmesg prints with its options, /dev/kmsg, syslog, the journal, a priority "<4>", and the answers of a
// session script. A line of another sender keeps what stands in front.
std::vector<std::string> messagesIn(std::string_view line);

} // namespace velmora::tools
