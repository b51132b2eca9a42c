// Clients of the device who do what bytes tell them: commands with any record, and writes into memory that they have mapped, between
// commands and during them. Whatever they do, the checks here hold; in the default build as long as they stay away from
// its open states (open_states.h).
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

#include "fuzz/books.h"
#include "fuzz/bytes.h"
#include "host/machine.h"
#include "kernel/mm/mm/MM_Core.h"

namespace velmora::fuzz {

// Words that are written while commands run: by a second thread all the time, or at every few accesses that the manager
// makes, which an input repeats exactly.
class Scribbler
{
public:
    enum class When { Never, BetweenAccesses, InASecondThread };

    explicit Scribbler(When when);
    ~Scribbler();
    Scribbler(const Scribbler&) = delete;
    Scribbler& operator=(const Scribbler&) = delete;

    void add(U32 address, U32 value);

private:
    void writeNext();

    std::array<std::atomic<std::uint64_t>, 16> words_{}; // value and address; 0 is none
    unsigned added_ = 0, next_ = 0;
    unsigned accesses_ = 0;
    std::atomic<bool> stop_ = false;
    std::thread thread_;
};

class DevicePlayer
{
public:
    DevicePlayer(const std::uint8_t* data, std::size_t size) : in_(data, size) {}

    // What was wrong, empty when nothing was.
    std::string play();

private:
    // Steps, see device.cpp.
    void boot(bool start);
    void step(Scribbler& scribbler);
    void createAny();
    void allocateAny();
    void releaseAny();
    void releaseAmongRuins();
    void write(U32 address, U32 value);
    void askAny();
    void rowsAny();
    void mapAny();
    void openOrClose();
    void rawCommand();
    void badPointer();
    U32 handle();
    U32 address();
    Books::Pieces::const_iterator pieceAt(U32 number) const;

    // Commands, see device_commands.cpp: one is sent unless it is left out, and its answer goes into the books.
    template <class Record> void send(U32 number, Record record)
    {
        send(number, reinterpret_cast<const std::uint8_t*>(&record), sizeof record);
    }
    void send(U32 number, const std::uint8_t* record, std::size_t bytes);
    int runEntry(const std::function<int()>& entry);

    bool mayBeSent(U32 number, const void* record) const;
    bool mayStart() const;
    bool mayCreate(const TSegInfoFromApp& info) const;
    bool mayRelease(const TFreeInfo& info) const;
    bool mayCollect(const TCollectGarbageInfo& info) const;
    bool mayClear(const U8* name) const;
    bool mayWrite(U32 address, U32 bytes) const;

    void answered(U32 number, int answer, const void* asked);
    void allocated(const TMallocInfo& info);
    void released(const TFreeInfo& info);
    void popped(U32 handle);
    void forgetCollected();

    // At the end: everything is given back, and then everything is free.
    void settle();
    void checkSegment(U32 handle);
    void checkOutside();

    void note(const std::string& mistake)
    {
        if (mistake_.empty())
            mistake_ = mistake;
    }

    Bytes in_;
    Books books_;
    std::string mistake_;
    U32 opens_ = 0;
    bool scribbled_ = false; // lists in memory may be anything
};

} // namespace velmora::fuzz
