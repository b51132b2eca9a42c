#include "controller/session_text.h"

#include <array>
#include <charconv>

namespace velmora::sim {

namespace {

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r';
}

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Takes one character or escape of a quoted text off the front of rest.
char takeQuotedChar(std::string_view& rest)
{
    const char c = rest.front(); // cppcheck-suppress containerOutOfBounds ; the caller has seen that there is one
    rest.remove_prefix(1);
    if (c != '\\')
        return c;
    if (rest.empty())
        throw SyntaxError("a text ends inside an escape");
    const char escape = rest.front();
    rest.remove_prefix(1);
    switch (escape) {
    case 'n': return '\n';
    case 'r': return '\r';
    case 't': return '\t';
    case '"':
    case '\\': return escape;
    case 'x':
        if (rest.size() >= 2 && hexDigit(rest[0]) >= 0 && hexDigit(rest[1]) >= 0) {
            const char byte = static_cast<char>(hexDigit(rest[0]) * 16 + hexDigit(rest[1]));
            rest.remove_prefix(2);
            return byte;
        }
        break;
    default: break;
    }
    throw SyntaxError(std::string("unknown escape \\") + escape);
}

Word takeQuoted(std::string_view& rest)
{
    Word word{Word::Kind::Quoted, {}};
    rest.remove_prefix(1);
    while (!rest.empty() && rest.front() != '"')
        word.text += takeQuotedChar(rest);
    if (rest.empty())
        throw SyntaxError("a text has no closing quote");
    rest.remove_prefix(1);
    return word;
}

Word takeBraced(std::string_view& rest)
{
    const auto end = rest.find('}');
    if (end == rest.npos)
        throw SyntaxError("a record has no closing brace");
    Word word{Word::Kind::Braced, std::string(rest.substr(1, end - 1))};
    rest.remove_prefix(end + 1);
    return word;
}

Word takePlain(std::string_view& rest)
{
    std::size_t length = 0;
    while (length < rest.size() && !isBlank(rest[length]) && rest[length] != '#')
        ++length;
    Word word{Word::Kind::Plain, std::string(rest.substr(0, length))};
    rest.remove_prefix(length);
    return word;
}

} // namespace

std::vector<Word> splitLine(std::string_view rest)
{
    std::vector<Word> words;
    while (true) {
        while (!rest.empty() && isBlank(rest.front()))
            rest.remove_prefix(1);
        if (rest.empty() || rest.front() == '#')
            return words;
        if (rest.front() == '"')
            words.push_back(takeQuoted(rest));
        else if (rest.front() == '{')
            words.push_back(takeBraced(rest));
        else
            words.push_back(takePlain(rest));
    }
}

std::uint32_t parseNumber(std::string_view text)
{
    const bool hex = text.starts_with("0x");
    const std::string_view digits = hex ? text.substr(2) : text;
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, hex ? 16 : 10);
    if (error == std::errc::result_out_of_range)
        throw SyntaxError("'" + std::string(text) + "' is more than 32 bits");
    if (error != std::errc() || end != digits.data() + digits.size())
        throw SyntaxError("'" + std::string(text) + "' is no number");
    if (!hex && digits.size() > 1 && digits.front() == '0')
        throw SyntaxError("'" + std::string(text) + "' has a leading zero");
    return value;
}

std::vector<std::uint8_t> parseHex(std::string_view text)
{
    if (text.empty() || text.size() % 2 != 0)
        throw SyntaxError("bytes need an even number of hexadecimal digits");
    std::vector<std::uint8_t> bytes;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = hexDigit(text[i]);
        const int low = hexDigit(text[i + 1]);
        if (high < 0 || low < 0)
            throw SyntaxError("'" + std::string(text.substr(i, 2)) + "' is no hexadecimal byte");
        bytes.push_back(static_cast<std::uint8_t>(high * 16 + low));
    }
    return bytes;
}

std::string toHex(const std::uint8_t* bytes, std::size_t count)
{
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(count * 2);
    for (std::size_t i = 0; i < count; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

std::string escaped(const std::string& bytes)
{
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<std::uint8_t>(c);
        switch (c) {
        case '\n': text += "\\n"; break;
        case '\r': text += "\\r"; break;
        case '\t': text += "\\t"; break;
        case '"': text += "\\\""; break;
        case '\\': text += "\\\\"; break;
        default:
            if (byte < 0x20 || byte > 0x7E)
                text += "\\x" + toHex(&byte, 1);
            else
                text += c;
        }
    }
    return text;
}

std::uint32_t crc32(const std::uint8_t* bytes, std::size_t count)
{
    static const auto table = [] {
        std::array<std::uint32_t, 256> entries{};
        for (std::uint32_t i = 0; i < entries.size(); ++i) {
            std::uint32_t value = i;
            for (int bit = 0; bit < 8; ++bit)
                value = (value >> 1) ^ ((value & 1) != 0 ? 0xEDB88320u : 0u);
            entries[i] = value;
        }
        return entries;
    }();
    std::uint32_t crc = 0xFFFFFFFF;
    for (std::size_t i = 0; i < count; ++i)
        crc = (crc >> 8) ^ table[(crc ^ bytes[i]) & 0xFF];
    return ~crc;
}

} // namespace velmora::sim
