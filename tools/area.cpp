#include "commands.hpp"

#include <cctype>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string>

#include "command_line.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm area - the module parameter for a reserved stretch of memory

The module takes kernel virtual addresses of the linear map, two hexadecimal numbers of 8 digits each. Which
physical memory they are depends on the kernel.
)";

constexpr const char* kNotes =
    R"(The linear map ends at PAGE_OFFSET plus the size of RAM, or earlier where the kernel has high memory.
Numbers are hexadecimal with 0x, or decimal, and may end in K, M or G.

exit status: 0 the area is good, 1 the module or the kernel could not use it, 2 unusable arguments

examples
  velmora-mm area 0x01000000+144M
  velmora-mm area --page-offset 0xc0000000 --phys-offset 0x40000000 --high-memory 0xe0000000 0x50000000-0x59000000
  velmora-mm area --check 95000000-9e000000
)";

constexpr std::uint64_t kAddressEnd = std::uint64_t(1) << 32;
constexpr std::uint64_t kPageBytes = 4096;
constexpr std::uint64_t kMargin = 1 << 20; // kept out of managed memory at each end
constexpr std::uint64_t kFixedSegments = 0x1000 + 0x1000 + 0x10000 + 0x100000 + 0x100000;
constexpr std::size_t kTextLength = 17; // characters that the module's parameter holds

// Why an area cannot be used.
struct Unusable : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Kernel {
    std::uint64_t pageOffset = 0x94000000;
    std::uint64_t physOffset = 0;
    std::optional<std::uint64_t> highMemory;
};

// Kernel virtual addresses as the module reads them.
struct Bounds {
    std::uint64_t start, end;
};

std::string hex(std::uint64_t value)
{
    char text[32];
    std::snprintf(text, sizeof text, "0x%08llx", static_cast<unsigned long long>(value));
    return text;
}

std::string mebibytes(std::uint64_t bytes)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.4g MiB", static_cast<double>(bytes) / (1 << 20));
    return text;
}

std::uint64_t parseNumber(std::string_view text)
{
    std::string_view digits = text;
    unsigned shift = 0;
    if (!digits.empty()) {
        switch (digits.back() | 0x20) {
        case 'k': shift = 10; break;
        case 'm': shift = 20; break;
        case 'g': shift = 30; break;
        default: break;
        }
        if (shift != 0)
            digits.remove_suffix(1);
    }
    int base = 10;
    if (digits.starts_with("0x") || digits.starts_with("0X")) {
        digits.remove_prefix(2);
        base = 16;
    }
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, base);
    if (error != std::errc() || end != digits.data() + digits.size() || value > kAddressEnd >> shift)
        throw UsageError("'" + std::string(text) + "' is no number of up to 32 bits");
    return value << shift;
}

std::string parameterText(const Bounds& bounds)
{
    return hex(bounds.start).substr(2) + "-" + hex(bounds.end).substr(2);
}

// What the module itself checks, then what it relies on.
void check(const Bounds& bounds, const Kernel& kernel)
{
    const auto reducedEnd = static_cast<std::uint32_t>(bounds.end - kMargin);
    if (bounds.start <= kernel.pageOffset)
        throw Unusable("the module refuses to load: the area must start above PAGE_OFFSET " + hex(kernel.pageOffset) +
                       ", and it starts at " + hex(bounds.start));
    if (reducedEnd <= kernel.pageOffset)
        throw Unusable("the module refuses to load: the area's end less one mebibyte, " + hex(reducedEnd) +
                       ", must be above PAGE_OFFSET " + hex(kernel.pageOffset));
    if (bounds.end <= bounds.start)
        throw Unusable("the area ends at " + hex(bounds.end) + ", not above its start " + hex(bounds.start) +
                       "; the module does not notice and would manage other memory");
    if (bounds.start % kPageBytes != 0 || bounds.end % kPageBytes != 0)
        throw Unusable("the area is not made of whole pages of " + std::to_string(kPageBytes) +
                       " bytes: " + hex(bounds.start) + " to " + hex(bounds.end));
    constexpr std::uint64_t least = 2 * kMargin + kFixedSegments;
    if (bounds.end - bounds.start <= least)
        throw Unusable("the area has " + mebibytes(bounds.end - bounds.start) +
                       "; one mebibyte at each end and the fixed segments leave nothing of " + mebibytes(least));
    if (kernel.highMemory && bounds.end > *kernel.highMemory)
        throw Unusable("the area ends at " + hex(bounds.end) + ", beyond the linear map, which ends at " +
                       hex(*kernel.highMemory) + ": the kernel has no address for the rest");
}

Bounds fromPhysical(std::string_view text, const Kernel& kernel)
{
    const std::size_t sign = text.find_first_of("-+");
    if (sign == text.npos || sign == 0)
        throw UsageError("'" + std::string(text) + "' is neither START-END nor START+SIZE");
    const std::uint64_t start = parseNumber(text.substr(0, sign));
    const std::uint64_t second = parseNumber(text.substr(sign + 1));
    const std::uint64_t end = text[sign] == '+' ? start + second : second;
    if (start < kernel.physOffset)
        throw Unusable("the area starts at physical " + hex(start) + ", below the start of RAM (PHYS_OFFSET) " +
                       hex(kernel.physOffset));
    if (end <= start)
        throw Unusable("the area ends at physical " + hex(end) + ", not above its start " + hex(start));
    const Bounds bounds = {start - kernel.physOffset + kernel.pageOffset, end - kernel.physOffset + kernel.pageOffset};
    if (bounds.end >= kAddressEnd)
        throw Unusable("the area would end at kernel virtual " + hex(bounds.end) + ", beyond the 32-bit address space");
    return bounds;
}

// As the module reads its text: what does not match leaves a number at 0.
Bounds fromText(const std::string& text)
{
    if (text.size() > kTextLength)
        throw Unusable("'" + text + "' has " + std::to_string(text.size()) + " characters; the parameter takes " +
                       std::to_string(kTextLength));
    const auto numberAt = [&](std::size_t at) { // without a sign, which the C library would take
        at = text.find_first_not_of(" \t\n\v\f\r", at);
        return at != text.npos && std::isxdigit(static_cast<unsigned char>(text[at]));
    };
    unsigned start = 0, end = 0;
    if (!numberAt(0) || !numberAt(text.find('-') + 1) || std::sscanf(text.c_str(), "%8x-%8x", &start, &end) != 2)
        throw Unusable("'" + text + "' is not START-END with two hexadecimal numbers");
    return {start, end};
}

void describe(const Bounds& bounds, const Kernel& kernel, std::ostream& out)
{
    const auto physical = [&](std::uint64_t address) { return hex(address - kernel.pageOffset + kernel.physOffset); };
    const std::uint64_t first = bounds.start + kMargin, last = bounds.end - kMargin;
    out << "bigphysarea=" << parameterText(bounds) << "\n"
        << "reserve  physical " << physical(bounds.start) << " to " << physical(bounds.end) << ", "
        << mebibytes(bounds.end - bounds.start) << "\n"
        << "managed  kernel virtual " << hex(first) << " to " << hex(last) << ", " << mebibytes(last - first)
        << " (one mebibyte stays unused at each end)\n";
    if (!kernel.highMemory)
        out << "not checked: whether the linear map reaches " << hex(bounds.end) << " (--high-memory)\n";
}

} // namespace

int area(const Words& words, std::ostream& out, std::ostream& errors)
{
    Kernel kernel;
    std::vector<std::string> areas;
    std::optional<std::string> text;
    bool bare = false;
    CLI::App app(kDescription, "velmora-mm area");
    prepare(app);
    app.footer(kNotes);
    app.add_option("AREA", areas, "START-END or START+SIZE: physical addresses, END past the last byte")->type_name("");
    app.add_option("--check", text, "what the module makes of bigphysarea=TEXT")->type_name("TEXT");
    const auto address = [&](const char* name, auto& value, const char* meaning) {
        app.add_option_function<std::string>(
               name, [&value](const std::string& word) { value = parseNumber(word); }, meaning)
            ->type_name("ADDR");
    };
    address("--page-offset", kernel.pageOffset,
            "first address of the kernel's linear map (PAGE_OFFSET); default 0x94000000");
    address("--phys-offset", kernel.physOffset,
            "physical address that it maps, the start of RAM (PHYS_OFFSET); default 0");
    address("--high-memory", kernel.highMemory,
            "kernel virtual address at which the linear map ends; default: not checked");
    app.add_flag("--text", bare, "print the bare parameter text only, for scripts");

    return runWords(app, words, out, errors, [&] {
        if (areas.size() > 1)
            throw UsageError("more than one area is given");
        if (areas.empty() != text.has_value())
            throw UsageError(text ? "either an area or --check, not both" : "the area is missing");
        try {
            const Bounds bounds = text ? fromText(*text) : fromPhysical(areas.front(), kernel);
            check(bounds, kernel);
            if (bare)
                out << parameterText(bounds) << "\n";
            else
                describe(bounds, kernel, out);
            return 0;
        } catch (const Unusable& error) {
            errors << "velmora-mm area: " << error.what() << "\n";
            return kFailed;
        }
    });
}

} // namespace velmora::tools
