#include "netpbm.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <stdexcept>

namespace printjob {

namespace {

std::size_t bytesOfRow(char kind, unsigned width, unsigned maximum)
{
    const std::size_t sample = maximum > 255 ? 2 : 1;
    switch (kind) {
    case '4': return (width + 7) / 8;
    case '5': return width * sample;
    default: return width * 3 * sample;
    }
}

} // namespace

RasterReader::RasterReader(const std::filesystem::path& file) : file_(file), stream_(file, std::ios::binary)
{
    if (!stream_)
        throw std::runtime_error("cannot read " + file.string());
    const int magic = next();
    const int kind = next();
    if (magic != 'P' || kind < '4' || kind > '6')
        throw std::runtime_error(file.string() + " is no raw netpbm image");
    header_.width = number();
    header_.height = number();
    const unsigned maximum = kind == '4' ? 1 : number();
    header_.rowBytes = bytesOfRow(static_cast<char>(kind), header_.width, maximum);
}

int RasterReader::next()
{
    const int c = stream_.get();
    if (c == std::ifstream::traits_type::eof())
        throw std::runtime_error(file_.string() + " ends inside its header");
    header_.text += static_cast<char>(c);
    return c;
}

// A number, comments before it skipped, and the one white-space character after it.
unsigned RasterReader::number()
{
    int c = next();
    while (std::isspace(c) != 0 || c == '#') {
        if (c == '#')
            while (c != '\n')
                c = next();
        c = next();
    }
    unsigned value = 0;
    for (; std::isdigit(c) != 0; c = next()) {
        value = value * 10 + static_cast<unsigned>(c - '0');
        if (value > 1000000)
            throw std::runtime_error(file_.string() + " claims an impossible size");
    }
    return value;
}

void RasterReader::read(std::byte* to, std::size_t bytes)
{
    stream_.read(reinterpret_cast<char*>(to), static_cast<std::streamsize>(bytes));
    if (stream_.gcount() != static_cast<std::streamsize>(bytes))
        throw std::runtime_error(file_.string() + " ends before its last row");
}

bool sameBytes(const std::filesystem::path& left, const std::filesystem::path& right)
{
    std::ifstream a(left, std::ios::binary);
    std::ifstream b(right, std::ios::binary);
    std::vector<char> blockA(1 << 16);
    std::vector<char> blockB(1 << 16);
    while (a && b) {
        a.read(blockA.data(), static_cast<std::streamsize>(blockA.size()));
        b.read(blockB.data(), static_cast<std::streamsize>(blockB.size()));
        if (a.gcount() != b.gcount() || !std::equal(blockA.begin(), blockA.begin() + a.gcount(), blockB.begin()))
            return false;
    }
    return a.eof() && b.eof();
}

} // namespace printjob
