// Who holds what, as clients see it: memory that was handed out and not given back, in pieces that may not overlap.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "kernel/mm/MM_Platform.h"

namespace velmora::fuzz {

class Books
{
public:
    struct Piece {
        U32 handle; // of the segment that has it: the heap for what overflowed
        U32 bytes;
    };
    using Pieces = std::map<U32, Piece>; // by address

    // Each says what is wrong, nothing when all is well.
    std::string take(U32 handle, U32 address, U32 bytes); // handed out: nobody may hold a part of it
    std::string give(U32 address, U32 bytes);             // given back: it was held, all of it

    // True when all of [address, address + bytes) is held, and by one segment.
    bool holds(U32 handle, U32 address, U32 bytes) const;
    bool holdsAnywhere(U32 address, U32 bytes) const;

    // Forgets what is held no longer, a unit at a time. unitOf(piece), isHeld(piece, address, bytes).
    template <class UnitOf, class IsHeld> void review(UnitOf unitOf, IsHeld isHeld)
    {
        Pieces left;
        for (const auto& [address, piece] : pieces_) {
            if (isHeld(piece, address, piece.bytes)) {
                left[address] = piece;
                continue;
            }
            const U32 unit = unitOf(piece);
            for (U32 at = address; at < address + piece.bytes; at += unit)
                if (isHeld(piece, at, unit))
                    left[at] = {piece.handle, unit};
        }
        pieces_ = std::move(left);
    }

    const Pieces& pieces() const { return pieces_; }
    void clear() { pieces_.clear(); }

private:
    Pieces pieces_;
};

} // namespace velmora::fuzz
