// Commands of the manager by name, its segments as a process can know them, and their books.
#pragma once

#include <cstdint>
#include <vector>

#include "../board.hpp"

namespace target::hostile {

inline constexpr std::uint32_t kSegments = 49; // whose entries can be asked for; the heap is none of them

struct Shape {
    const char* name; // up to four characters
    std::uint32_t bytes, blockBytes;
    std::uint8_t map = 0, discipline = LINKEDLIST, type = FLOAT;
    bool overflow = false;
};

int create(const Descriptor& device, const Shape& shape, std::uint32_t* handle = nullptr);
// The address, 0 without room, all ones when refused.
std::uint32_t allocate(const Descriptor& device, std::uint32_t handle, std::uint32_t bytes, std::uint8_t owner);
int release(const Descriptor& device, std::uint32_t handle, std::uint32_t address, std::uint32_t bytes);
int collect(const Descriptor& device, std::uint32_t handle, std::uint8_t owner);
TMMSegInfoWire entryOf(const Descriptor& device, std::uint32_t handle);

// Builds the table of fixed segments and starts the library, which the guarded manager allows only to a process that is
// alone while no block is allocated. Throws when it is refused.
void startAfresh(const Descriptor& device);

// A piece of the heap as MM_CMD_DISPLAY_MST prints it.
struct Piece {
    std::uint32_t blockBytes, total, allocated, free, largest, start, end;
};
std::vector<Piece> heapPieces(const Descriptor& device);

// The allocator's books, of the whole manager: of every segment allocated and free blocks make up the total; all that is
// free can be allocated, and then everything is; released in one piece, everything is one free run again. Whatever processes
// that are gone left allocated goes with it. Throws at the first that does not hold.
void checkBooks(const Descriptor& device);

} // namespace target::hostile
