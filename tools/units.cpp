#include "units.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <utility>

#include <velmora_mm/velmora_mm.h>

namespace velmora::tools {

namespace {

std::optional<std::uint64_t> number(std::string_view text)
{
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        text.remove_prefix(2);
        base = 16;
    }
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

constexpr std::array<const char*, 4> kUnits = {"B", "KiB", "MiB", "GiB"};

} // namespace

std::optional<std::uint32_t> parseNumber(std::string_view text)
{
    const auto value = number(text);
    return value && *value <= 0xFFFFFFFF ? std::optional(static_cast<std::uint32_t>(*value)) : std::nullopt;
}

std::optional<std::uint64_t> parseBytes(std::string_view text, std::uint64_t most)
{
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X"); // B is a digit there
    std::string_view digits = text;
    unsigned shift = 0;
    if (digits.ends_with("iB"))
        digits.remove_suffix(2);
    else if (!hexadecimal && digits.ends_with("B"))
        digits.remove_suffix(1);
    const bool hasEnding = digits.size() != text.size();
    for (const auto& [letters, bits] : {std::pair{"kK", 10U}, {"mM", 20U}, {"gG", 30U}})
        if (!digits.empty() && std::string_view(letters).find(digits.back()) != std::string_view::npos) {
            shift = bits;
            digits.remove_suffix(1);
            break;
        }
    if (hasEnding && shift == 0 && text.ends_with("iB"))
        return std::nullopt;
    const auto value = number(digits);
    return value && *value <= most >> shift ? std::optional(*value << shift) : std::nullopt;
}

std::optional<AddressRange> parseArea(std::string_view text)
{
    const auto address = [](std::string_view digits) -> std::optional<std::uint32_t> {
        if (digits.starts_with("0x") || digits.starts_with("0X"))
            digits.remove_prefix(2);
        std::uint32_t value = 0;
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
        const bool whole = error == std::errc() && end == digits.data() + digits.size();
        return whole ? std::optional(value) : std::nullopt;
    };
    const std::size_t dash = text.find('-');
    if (dash == text.npos)
        return std::nullopt;
    const auto start = address(text.substr(0, dash)), end = address(text.substr(dash + 1));
    return start && end ? std::optional(AddressRange{*start, *end}) : std::nullopt;
}

std::string bytesText(std::uint64_t bytes)
{
    std::size_t unit = 0;
    while (bytes != 0 && bytes % 1024 == 0 && unit + 1 < kUnits.size()) {
        bytes /= 1024;
        ++unit;
    }
    return std::to_string(bytes) + " " + kUnits[unit];
}

std::string roundedBytes(std::uint64_t bytes)
{
    std::size_t unit = 0;
    double value = static_cast<double>(bytes);
    while (value >= 1023.5 && unit + 1 < kUnits.size()) {
        value /= 1024;
        ++unit;
    }
    std::array<char, 32> text;
    std::snprintf(text.data(), text.size(), value < 999.5 ? "%.3g %s" : "%.0f %s", value, kUnits[unit]);
    return text.data();
}

std::string counted(std::uint64_t count, std::string_view thing)
{
    return std::to_string(count).append(" ").append(thing) + (count == 1 ? "" : "s");
}

std::string hexText(std::uint32_t value)
{
    std::array<char, 16> text;
    std::snprintf(text.data(), text.size(), "0x%x", value);
    return text.data();
}

std::string addressText(std::uint32_t address)
{
    std::array<char, 16> text;
    std::snprintf(text.data(), text.size(), "0x%08x", address);
    return text.data();
}

std::string shownName(std::string_view name)
{
    std::string text(name);
    std::ranges::replace_if(
        text, [](char byte) { return byte < ' ' || byte > '~'; }, '?');
    return text;
}

std::string typeName(unsigned type)
{
    switch (type) {
    case MM_FIXED: return "fixed";
    case MM_FLOAT: return "float";
    case MM_FLOATALIGN: return "align";
    default: return std::to_string(type);
    }
}

std::string disciplineName(unsigned discipline)
{
    switch (discipline) {
    case MM_STACK: return "stack";
    case MM_LINKEDLIST: return "list";
    default: return std::to_string(discipline);
    }
}

} // namespace velmora::tools
