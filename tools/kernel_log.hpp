// The kernel log of a device: a simulated controller's comes through its socket, a node's is this kernel's.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace velmora::tools {

// The device that --device means when it says this.
std::string deviceName(const std::string& option);

// Follows a log. What there is of it comes first. One thread at a time.
class KernelLog
{
public:
    // device: as --device has it. Throws std::system_error, with a sentence, when the log cannot be read.
    explicit KernelLog(const std::string& device);
    KernelLog(const KernelLog&) = delete;
    KernelLog& operator=(const KernelLog&) = delete;
    ~KernelLog();

    // Messages since the last call, without what the kernel puts in front of them and the line end behind them; all that
    // commands which have returned printed is there. Throws std::runtime_error: messages were lost, and the next call goes
    // on behind them; or the controller is gone.
    std::vector<std::string> take();

private:
    struct Source;
    struct Controllers;
    struct Messages;
    struct Text;
    std::unique_ptr<Source> source_;
};

// Where managed memory lies, kernel virtual addresses, as the module's load prints it; the last load counts.
struct ManagedMemory {
    std::uint32_t start, end;
};
std::optional<ManagedMemory> managedMemoryIn(const std::vector<std::string>& messages);

// Lines of a text as syslog(2) gives it, without level, time and caller: "<4>[   12.345678] text".
std::vector<std::string> logLines(const std::string& text);
// What a later reading has and an earlier one has not; in between the log may have lost its oldest lines.
std::vector<std::string> addedLines(const std::vector<std::string>& earlier, const std::vector<std::string>& later);
// The text of a record of /dev/kmsg, "6,339,5140900,-;text\n KEY=value\n"; empty for what no kernel code printed.
std::string recordText(const std::string& record);

} // namespace velmora::tools
