// Sizes, addresses and segments as people write them, and back.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velmora::tools {

// A number of at most 32 bits: decimal, or hexadecimal with 0x. nullopt where it is none.
std::optional<std::uint32_t> parseNumber(std::string_view text);

// Bytes: a number that may end in K, M or G, with or without B or iB behind it: 4096, 64K, 8MiB. Always powers of 1024.
// At most most. nullopt where it is none, or is larger.
std::optional<std::uint64_t> parseBytes(std::string_view text, std::uint64_t most = 0xFFFFFFFF);

// START-END, two hexadecimal addresses with or without 0x, as the module's parameter has an area. nullopt where it is none.
struct AddressRange {
    std::uint32_t start, end;
};
std::optional<AddressRange> parseArea(std::string_view text);

// Bytes in the largest unit that divides them: 512 B, 64 KiB, 8 MiB; and rounded to what four characters hold: 1.5 MiB.
std::string bytesText(std::uint64_t bytes);
std::string roundedBytes(std::uint64_t bytes);

// "1 run", "2 runs".
std::string counted(std::uint64_t count, std::string_view thing);

// 0x%x.
std::string hexText(std::uint32_t value);
// 0x%08x.
std::string addressText(std::uint32_t address);

// A name of the manager's as it can be shown: its bytes are anybody's choice, and those that a terminal would heed or cannot
// show become '?'.
std::string shownName(std::string_view name);

// What a request's numbers mean, as options and listings say it: "fixed", "float", "align"; "stack", "list".
std::string typeName(unsigned type);
std::string disciplineName(unsigned discipline);

} // namespace velmora::tools
