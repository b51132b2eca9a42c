#include "commands.hpp"

#include <array>
#include <cstdio>
#include <cstring>
#include <vector>

#include "device_command.hpp"
#include "memory.hpp"
#include "units.hpp"
#include "whole_file.hpp"

namespace velmora::tools {

namespace {

constexpr const char* kDescription =
    R"(velmora-mm read - shows memory, read through a mapping

Sixteen bytes a line, with their address; lines that repeat the one before are a *.
)";

constexpr const char* kExamples = R"(  velmora-mm read 0x95b00000 256
  velmora-mm read PAGE+64K 4K
  velmora-mm read PAGE 8M --output page.bin
)";

constexpr std::size_t kLineBytes = 16;

std::string dumpLine(MM_TAddr address, const std::string& bytes)
{
    std::array<char, 16> part;
    std::snprintf(part.data(), part.size(), "%08x ", address);
    std::string line = part.data(), letters;
    for (std::size_t i = 0; i < kLineBytes; ++i) {
        const bool there = i < bytes.size();
        std::snprintf(part.data(), part.size(), there ? " %02x" : "   ",
                      there ? static_cast<unsigned char>(bytes[i]) : 0);
        line += part.data();
        line += i + 1 == kLineBytes / 2 ? " " : "";
        if (there)
            letters += bytes[i] >= ' ' && bytes[i] <= '~' ? bytes[i] : '.';
    }
    return line + "  |" + letters + "|\n";
}

void dump(std::ostream& out, MM_TAddr start, const std::string& bytes)
{
    std::string before;
    bool repeats = false;
    for (std::size_t at = 0; at < bytes.size(); at += kLineBytes) {
        const std::string line = bytes.substr(at, kLineBytes);
        const bool same = line == before && at + kLineBytes < bytes.size(); // the last line shows where it ends
        if (!same)
            out << dumpLine(start + static_cast<MM_TAddr>(at), line);
        else if (!repeats)
            out << "*\n";
        repeats = same;
        before = line;
    }
}

} // namespace

int readMemory(const Words& words, std::ostream& out, std::ostream& errors)
{
    DeviceCommand command("read", kDescription, deviceNotes("", kExamples));
    std::string where, file;
    std::uint32_t bytes = 0;
    bool raw = false;
    command.argument("WHERE", into(where), kWhereHelp);
    command.argument("BYTES", sizeInto(bytes), "how many: 256, 64K, 8MiB");
    command.flag("--raw", raw, "the bytes as they are");
    command.option("--output", "FILE", into(file), "write them to a file as they are; it appears whole or not at all");
    return command.run(words, out, errors, [&](Device& device) {
        const MM_TAddr start = findAddress(device, where);
        requireMemory(device, start, bytes);
        const Mapping view = device.map(start, bytes);
        const std::string content(reinterpret_cast<const char*>(view.bytes().data()), view.bytes().size());
        if (!file.empty())
            writeWholeFile(file, content);
        else if (raw)
            out.write(content.data(), static_cast<std::streamsize>(content.size()));
        else
            dump(out, start, content);
        return kDone;
    });
}

} // namespace velmora::tools
