#include "fuzz/books.h"

#include <cstdio>
#include <iterator>

namespace velmora::fuzz {

namespace {

std::string at(const char* what, U32 address, U32 bytes)
{
    char text[96];
    std::snprintf(text, sizeof text, "%s: 0x%08x, %u bytes", what, static_cast<unsigned>(address),
                  static_cast<unsigned>(bytes));
    return text;
}

} // namespace

std::string Books::take(U32 handle, U32 address, U32 bytes)
{
    const auto above = pieces_.lower_bound(address);
    const bool overAbove = above != pieces_.end() && above->first < address + bytes;
    const bool overBelow =
        above != pieces_.begin() && std::prev(above)->first + std::prev(above)->second.bytes > address;
    if (overAbove || overBelow)
        return at("memory in use was handed out", address, bytes);
    pieces_[address] = {handle, bytes};
    return "";
}

std::string Books::give(U32 address, U32 bytes)
{
    if (!holdsAnywhere(address, bytes))
        return at("what nobody held was released", address, bytes);
    auto piece = std::prev(pieces_.upper_bound(address));
    while (piece != pieces_.end() && piece->first < address + bytes) {
        const auto [start, held] = *piece;
        piece = pieces_.erase(piece);
        if (start < address)
            pieces_[start] = {held.handle, address - start};
        if (start + held.bytes > address + bytes)
            pieces_[address + bytes] = {held.handle, start + held.bytes - address - bytes};
    }
    return "";
}

bool Books::holds(U32 handle, U32 address, U32 bytes) const
{
    auto piece = pieces_.upper_bound(address);
    if (bytes == 0 || address + bytes < address || piece == pieces_.begin())
        return false;
    --piece;
    for (U32 past = address; past < address + bytes; ++piece) {
        if (piece == pieces_.end() || piece->first > past || piece->first + piece->second.bytes <= past)
            return false;
        if (handle != ~0U && piece->second.handle != handle)
            return false;
        past = piece->first + piece->second.bytes;
    }
    return true;
}

bool Books::holdsAnywhere(U32 address, U32 bytes) const
{
    return holds(~0U, address, bytes);
}

} // namespace velmora::fuzz
