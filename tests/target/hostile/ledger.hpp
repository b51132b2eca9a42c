// What the processes were handed out, by themselves: a bit for every 16 bytes of the managed area, in memory that they share
// and the manager does not know of. A process holds the ledger while it allocates or releases. And how much they did.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <new>
#include <pthread.h>
#include <string>
#include <sys/mman.h>

#include "../board.hpp"
#include "../harness.hpp"

namespace target::hostile {

class Ledger
{
public:
    Ledger() : bytes_(sizeof(Shared) + granules() / 8)
    {
        void* const memory = mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        CHECK(memory != MAP_FAILED);
        shared_ = new (memory) Shared;
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
        pthread_mutex_init(&shared_->mutex, &attributes);
    }
    Ledger(const Ledger&) = delete;
    Ledger& operator=(const Ledger&) = delete;
    ~Ledger() { munmap(shared_, bytes_); }

    // Nobody has anything. Before the processes of a round start.
    void clear() { std::memset(bits(), 0, granules() / 8); }

    void countStep() { ++shared_->steps; }
    std::uint32_t steps() const { return shared_->steps; }

    class Held
    {
    public:
        explicit Held(Ledger& ledger) : ledger_(ledger) { pthread_mutex_lock(&ledger.shared_->mutex); }
        Held(const Held&) = delete;
        Held& operator=(const Held&) = delete;
        ~Held() { pthread_mutex_unlock(&ledger_.shared_->mutex); }

        // Throws when any of it is somebody's already, or lies outside the area.
        void take(std::uint32_t address, std::uint32_t bytes) { ledger_.change(address, bytes, true); }
        // Throws when any of it is nobody's.
        void give(std::uint32_t address, std::uint32_t bytes) { ledger_.change(address, bytes, false); }

    private:
        Ledger& ledger_;
    };

private:
    struct Shared {
        pthread_mutex_t mutex;
        std::atomic<std::uint32_t> steps{0};
    };
    static constexpr std::uint32_t kGranule = 16; // no block is shorter

    static std::uint32_t granules() { return (board().managedEnd() - board().managedStart()) / kGranule; }
    std::uint8_t* bits() { return reinterpret_cast<std::uint8_t*>(shared_ + 1); }

    void change(std::uint32_t address, std::uint32_t bytes, bool take)
    {
        if (address < board().managedStart() || address > board().managedEnd() ||
            bytes > board().managedEnd() - address)
            throw Failure(shown(bytes) + " bytes at " + shown(address) + " leave the area");
        const std::uint32_t first = (address - board().managedStart()) / kGranule;
        for (std::uint32_t granule = first; granule < first + bytes / kGranule; ++granule) {
            const auto bit = static_cast<std::uint8_t>(1U << granule % 8);
            std::uint8_t& byte = bits()[granule / 8];
            if (((byte & bit) != 0) == take)
                throw Failure(shown(bytes) + " bytes at " + shown(address) +
                              (take ? " were given twice" : " were released, and nobody had them"));
            byte ^= bit;
        }
    }

    std::size_t bytes_;
    Shared* shared_;
};

} // namespace target::hostile
