#include "terminal.hpp"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

namespace velmora::tools {

namespace {

std::string_view environment(const char* name)
{
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

} // namespace

bool isTerminal(const std::ostream& out)
{
    return &out == &std::cout && isatty(STDOUT_FILENO) == 1;
}

std::optional<unsigned> terminalColumns()
{
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        return std::nullopt;
    return size.ws_col;
}

bool localeIsUtf8()
{
    for (const char* const name : {"LC_ALL", "LC_CTYPE", "LANG"})
        if (const std::string_view value = environment(name); !value.empty()) {
            const auto ends = [&](std::string_view ending) { return value.find(ending) != value.npos; };
            return ends("UTF-8") || ends("utf8") || ends("UTF8") || ends("utf-8");
        }
    return false;
}

bool wantsColour(const std::string& word, const std::ostream& out)
{
    if (word != "auto")
        return word == "always";
    return isTerminal(out) && environment("NO_COLOR").empty() && environment("TERM") != "dumb";
}

std::string colourMistake(const std::string& word)
{
    if (word == "auto" || word == "always" || word == "never")
        return {};
    return "'" + word + "' is no use of colours: auto, always or never";
}

std::string wrapped(const std::string& text, unsigned columns, unsigned indent)
{
    const std::size_t room = columns > indent ? columns - indent : 1;
    std::string lines;
    for (std::size_t at = 0; at < text.size();) {
        std::size_t length = std::min(room, text.size() - at);
        if (at + length < text.size() && text[at + length] != ' ')
            if (const std::size_t blank = text.rfind(' ', at + length); blank != text.npos && blank > at)
                length = blank - at;
        const std::size_t last = text.find_last_not_of(' ', at + length - 1);
        lines.append(indent, ' ').append(text, at, last + 1 - at).append("\n");
        at = text.find_first_not_of(' ', at + length);
    }
    return lines;
}

} // namespace velmora::tools
