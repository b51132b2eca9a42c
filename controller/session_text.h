// The words of a session script line.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace velmora::sim {

// Why a line was not understood.
struct SyntaxError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Word {
    enum class Kind { Plain, Quoted, Braced };
    Kind kind;
    std::string text; // without quotes or braces, escapes resolved
};

// Splits a line; a comment ends it. Throws SyntaxError.
std::vector<Word> splitLine(std::string_view line);

// A 32-bit number: hexadecimal with 0x, or decimal without a leading zero. Throws SyntaxError.
std::uint32_t parseNumber(std::string_view text);

// An even, non-zero number of hexadecimal digits. Throws SyntaxError.
std::vector<std::uint8_t> parseHex(std::string_view text);

// Lower-case digits.
std::string toHex(const std::uint8_t* bytes, std::size_t count);

// Text between quotes: \n \r \t \" \\ and \xNN.
std::string escaped(const std::string& bytes);

// CRC-32 of IEEE 802.3, as zlib computes it.
std::uint32_t crc32(const std::uint8_t* bytes, std::size_t count);

} // namespace velmora::sim
