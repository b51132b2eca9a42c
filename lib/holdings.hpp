// The blocks that a process holds through a device: what a release, a clean-up and an allocation have to agree on.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>

#include <unistd.h>

#include <velmora/segment.hpp>

namespace velmora::detail {

struct Holding {
    std::uint64_t ticket; // of the Block that holds it
    Handle segment;
    Owner owner;
};

// Its mutex is held over each look and the command that follows it, so that within a process they are one.
struct Holdings {
    std::mutex mutex;
    std::map<MM_TAddr, Holding> blocks;
    std::uint64_t lastTicket = 0;
    pid_t process = getpid();

    // A child of a fork holds nothing.
    bool holds(MM_TAddr address, std::uint64_t ticket) const
    {
        const auto found = blocks.find(address);
        return found != blocks.end() && found->second.ticket == ticket && process == getpid();
    }

    // An older entry of that address is out of date: the manager gives nothing twice that it knows to be taken.
    std::uint64_t add(MM_TAddr address, Handle segment, Owner owner)
    {
        blocks[address] = {++lastTicket, segment, owner};
        return lastTicket;
    }

    // What a clean-up takes: the blocks of every owner whose ID has all bits of this one.
    void forget(Handle segment, Owner owner)
    {
        const auto id = static_cast<unsigned>(owner);
        std::erase_if(blocks, [&](const auto& one) {
            return one.second.segment == segment && (static_cast<unsigned>(one.second.owner) & id) == id;
        });
    }
};

} // namespace velmora::detail
