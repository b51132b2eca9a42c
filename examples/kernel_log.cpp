#include "kernel_log.hpp"

#include <algorithm>
#include <cerrno>
#include <regex>
#include <sstream>
#include <sys/klog.h>
#include <system_error>

namespace printjob {

namespace {

std::vector<std::string> readLines()
{
    constexpr int readAll = 3;
    constexpr int bufferSize = 10;
    std::string text;
    int bytes = klogctl(bufferSize, nullptr, 0);
    if (bytes >= 0) {
        text.resize(static_cast<std::size_t>(bytes));
        bytes = klogctl(readAll, text.data(), bytes);
    }
    if (bytes < 0)
        throw std::system_error(errno, std::generic_category(), "cannot read the kernel log");
    text.resize(static_cast<std::size_t>(bytes));
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

} // namespace

std::string withoutPrefix(const std::string& line)
{
    static const std::regex prefix(R"(^(<\d+>)?(\[ *\d+\.\d+\](\[ *[TC]\d+\])? ?)?)"); // the last: thread or processor
    return std::regex_replace(line, prefix, "", std::regex_constants::format_first_only);
}

std::vector<std::string> addedLines(const std::vector<std::string>& earlier, const std::vector<std::string>& later)
{
    // Lines may repeat, so the longest end of the earlier reading with which the later one begins is what both have.
    for (auto kept = earlier.begin(); kept != earlier.end(); ++kept)
        if (earlier.end() - kept <= std::ssize(later) && std::equal(kept, earlier.end(), later.begin()))
            return {later.begin() + (earlier.end() - kept), later.end()};
    return later;
}

std::vector<std::string> KernelLog::takeMessages()
{
    std::vector<std::string> now = readLines();
    std::vector<std::string> messages = addedLines(lines_, now);
    lines_ = std::move(now);
    std::transform(messages.begin(), messages.end(), messages.begin(), withoutPrefix);
    return messages;
}

} // namespace printjob
