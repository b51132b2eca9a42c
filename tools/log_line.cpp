#include "log_line.hpp"

#include <algorithm>
#include <array>
#include <cctype>

namespace velmora::tools {

namespace {

bool isDigit(char c)
{
    return std::isdigit(static_cast<unsigned char>(c)) != 0;
}

bool startsWithDigit(std::string_view text)
{
    return !text.empty() && isDigit(text.front());
}

std::string_view behind(std::string_view text, std::size_t at)
{
    text.remove_prefix(std::min(at, text.size()));
    return text;
}

std::string_view trimmed(std::string_view text)
{
    constexpr std::string_view kSpace = " \t\r\n";
    const std::size_t first = text.find_first_not_of(kSpace);
    return first == text.npos ? std::string_view() : text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

// What each of these takes off the front of a line; all of it where it finds nothing of its kind.

// <4>
std::string_view withoutPriority(std::string_view text)
{
    const std::size_t end = text.find('>');
    const bool found =
        text.starts_with('<') && end != text.npos && end > 1 && std::ranges::all_of(text.substr(1, end - 1), isDigit);
    return found ? behind(text, end + 1) : text;
}

// 4,339,5140900,-;
std::string_view withoutRecordHeader(std::string_view text)
{
    const std::size_t end = text.find(';');
    const bool found = startsWithDigit(text) && end != text.npos && std::ranges::count(text.substr(0, end), ',') >= 3 &&
                       text.substr(0, end).find(' ') == text.npos;
    return found ? behind(text, end + 1) : text;
}

// [   12.345678], [Sat Nov 21 20:54:55 2026], [    3.8 <    0.1>], [  T123]
std::string_view withoutBracket(std::string_view text)
{
    const std::size_t end = text.find(']');
    if (!text.starts_with('[') || end == text.npos)
        return text;
    const std::string_view stamp = text.substr(1, end - 1);
    const bool found = std::ranges::any_of(stamp, isDigit) && std::ranges::all_of(stamp, [](char c) {
                           return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
                                  std::string_view(" .:+-<>").find(c) != std::string_view::npos;
                       });
    return found ? behind(text, end + 1) : text;
}

// kern  :warn  :
std::string_view withoutFacility(std::string_view text)
{
    const std::size_t first = text.find(':');
    const std::size_t second = first == text.npos ? text.npos : text.find(':', first + 1);
    const bool found = second != text.npos && trimmed(text.substr(0, first)) == "kern" && second < 20;
    return found ? behind(text, second + 1) : text;
}

// The words at the front of a line, separated by spaces, and where the rest begins.
struct FrontWords {
    std::array<std::string_view, 4> words;
    std::array<std::size_t, 4> ends{};

    explicit FrontWords(std::string_view text)
    {
        std::size_t at = 0;
        for (std::size_t i = 0; i < words.size(); ++i) {
            at = std::min(text.find_first_not_of(' ', at), text.size());
            const std::size_t end = std::min(text.find(' ', at), text.size());
            words[i] = text.substr(at, end - at);
            ends[i] = at = end;
        }
    }
};

bool isTime(std::string_view word) // 20:54:55
{
    return word.size() >= 8 && word[2] == ':' && word[5] == ':' && startsWithDigit(word);
}

// "Nov 21 20:54:55 host kernel:", "2026-11-21T20:54:55+0000 host kernel:", and the second stamp alone
std::string_view withoutStamp(std::string_view text)
{
    const FrontWords front(text);
    const std::string_view first = front.words[0];
    std::size_t end = 0;
    if (first.size() == 3 && isTime(front.words[2]))
        end = front.ends[2];
    else if (first.size() >= 19 && first[4] == '-' && first[7] == '-' && isTime(first.substr(11)))
        end = front.ends[0];
    else
        return text;
    const std::string_view rest = behind(text, end);
    const FrontWords sender(rest);
    if (sender.words[1] == "kernel:")
        return behind(rest, sender.ends[1]);
    return first.size() == 3 ? text : rest;
}

// kernel:
std::string_view withoutSender(std::string_view text)
{
    return text.starts_with("kernel: ") ? behind(text, 8) : text;
}

// "velmora-controller: " and what else programs put before a report of the simulated controller.
std::string_view withoutProgram(std::string_view text)
{
    const std::size_t report = text.find("the simulated controller stopped: ");
    return report != text.npos ? behind(text, report) : text;
}

std::string_view withoutPrefixes(std::string_view text)
{
    constexpr std::array kPrefixes = {withoutPriority, withoutRecordHeader, withoutBracket, withoutFacility,
                                      withoutStamp,    withoutSender,       withoutProgram};
    for (std::size_t before = text.npos; before != text.size();) {
        before = text.size();
        text = trimmed(text);
        for (const auto without : kPrefixes)
            text = trimmed(without(text));
    }
    return text;
}

// The bytes that escapes stand for which end a line, or stand in quotes.
std::string unescaped(std::string_view text, bool quoted)
{
    constexpr std::string_view kLetters = "nrt\"\\", kBytes = "\n\r\t\"\\";
    std::string result;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const std::string_view rest = text.substr(at);
        const std::size_t letter = rest.size() > 1 ? kLetters.find(rest[1]) : std::string_view::npos;
        if (rest.starts_with("\\x0a") || rest.starts_with("\\x0d")) {
            result += rest[3] == 'a' ? '\n' : '\r';
            at += 3;
        } else if (quoted && rest.front() == '\\' && letter != kLetters.npos) {
            result += kBytes[letter];
            ++at;
        } else {
            result += rest.front();
        }
    }
    return result;
}

} // namespace

std::vector<std::string> messagesIn(std::string_view line)
{
    constexpr std::string_view kAnswer = "log \"";
    std::string_view text = trimmed(line);
    const bool answer = text.starts_with(kAnswer) && text.ends_with('"') && text.size() > kAnswer.size();
    if (answer)
        text = text.substr(kAnswer.size(), text.size() - kAnswer.size() - 1);
    std::vector<std::string> messages;
    const std::string bytes = unescaped(withoutPrefixes(text), answer);
    for (std::size_t at = 0; at < bytes.size();) {
        const std::size_t end = std::min(bytes.find('\n', at), bytes.size());
        const std::string_view part = withoutPrefixes(std::string_view(bytes).substr(at, end - at));
        if (!part.empty())
            messages.emplace_back(part);
        at = end + 1;
    }
    return messages;
}

} // namespace velmora::tools
