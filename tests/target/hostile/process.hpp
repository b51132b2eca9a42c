// A process that means no good: random commands with random arguments, records in mapped memory, mappings of anything, and
// writes wherever it has mapped.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "../board.hpp"
#include "ledger.hpp"
#include "random.hpp"
#include "segments.hpp"

namespace target::hostile {

using Clock = std::chrono::steady_clock;

// What the processes of a round may do.
enum class Conduct {
    Wild,     // everything
    Counted,  // everything that a process can keep books of: no creation, no clean-up, no start
    OwnBlocks // commands on their own blocks of one segment only, as kernel code works in it; writes anywhere
};

class HostileProcess
{
public:
    // ledger: kept in all but Wild rounds. segment: of an OwnBlocks round.
    HostileProcess(std::uint32_t seed, Conduct conduct, Ledger& ledger, std::uint32_t segment);
    HostileProcess(const HostileProcess&) = delete;
    HostileProcess& operator=(const HostileProcess&) = delete;
    ~HostileProcess();

    // Some steps at the least. Throws at the first answer that must not be.
    void run(Clock::time_point until);

private:
    struct Block {
        std::uint32_t handle, address, bytes; // bytes as asked for
        std::uint32_t held;                   // bytes of its blocks
    };

    std::uint8_t* view(std::uint32_t address) { return view_ + (address - board().managedStart()); }
    std::uint32_t anyHandle();
    std::uint32_t anyAddress();
    const TMMSegInfoWire* anyEntry();
    std::uint32_t heldBytes(std::uint32_t handle, std::uint32_t address, std::uint32_t bytes) const;
    template <class Record> void send(std::uint32_t number, Record& record);

    void step();
    void stepWildly();
    void learn();
    void createAny();
    void allocateAny();
    void allocateOwn();
    void releaseHeld();
    void releaseWildly();
    void fillAny();
    void askAny();
    void startAny();
    void changeRows();
    void mapAny();
    void reopen();
    void scribble();

    Random random_;
    Conduct conduct_;
    Ledger& ledger_;
    std::uint32_t segment_;
    std::optional<Descriptor> device_;
    std::uint8_t* view_; // the whole managed area
    std::vector<TMMSegInfoWire> entries_;
    std::vector<Piece> heap_;
    std::vector<Block> held_;
};

} // namespace target::hostile
