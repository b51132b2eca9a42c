#include <velmora/segment.hpp>

#include <utility>

#include "lib/segment_state.hpp"

namespace velmora {

Block::Block(std::shared_ptr<Segment::State> state, const BlockRecord& record, std::uint64_t ticket)
    : state_(std::move(state)), record_(record), ticket_(ticket)
{
}

Block::Block(Block&& other) noexcept = default;

Block& Block::operator=(Block&& other) noexcept
{
    if (this != &other) {
        Block old(std::move(*this)); // releases
        state_ = std::move(other.state_);
        record_ = other.record_;
        ticket_ = other.ticket_;
    }
    return *this;
}

Block::~Block()
{
    if (state_ == nullptr)
        return;
    try {
        release();
    } catch (...) { // there is nobody to tell
    }
}

bool Block::held() const noexcept
{
    if (state_ == nullptr)
        return false;
    const std::lock_guard guard(state_->holdings.mutex);
    return state_->holdings.holds(address(), ticket_);
}

void Block::requireHeld(const char* call) const
{
    if (!held())
        throw Error(call, Errc::NotHeld);
}

Mapping Block::map(Caching caching) const
{
    return map(0, size(), caching);
}

Mapping Block::map(std::uint32_t offset, std::uint32_t bytes, Caching caching) const
{
    requireHeld("Block::map");
    if (bytes == 0 || bytes > size() || offset > size() - bytes)
        throw Error("Block::map", Errc::BadRange,
                    std::to_string(bytes) + " bytes from " + std::to_string(offset) + " on, of " +
                        std::to_string(size()));
    return state_->device.map(address() + offset, bytes, caching);
}

std::optional<Mapping> Block::map(Caching caching, std::error_code& error) const
{
    return orElse(error, std::optional<Mapping>(), [&] { return std::optional(map(caching)); });
}

void Block::fill(std::byte value) const
{
    requireHeld("Block::fill");
    state_->device.fill(address(), std::to_integer<std::uint8_t>(value), size());
}

std::uint32_t Block::physicalAddress() const
{
    requireHeld("Block::physicalAddress");
    return state_->device.physicalAddress(address());
}

void Block::release()
{
    constexpr const char* call = "Block::release";
    if (state_ == nullptr)
        throw Error(call, Errc::NotHeld);
    Segment::State& state = *state_;
    detail::Holdings& holdings = state.holdings;
    const std::lock_guard guard(holdings.mutex);
    if (!holdings.holds(address(), ticket_))
        throw Error(call, Errc::NotHeld);
    std::uint32_t bytes = size();
    if (!state.isHeap()) {
        const auto current = [&] {
            try {
                return state.requireAllocated(call, record_);
            } catch (const ConnectionError&) {
                throw;
            } catch (const Error& refusal) {
                if (refusal.code().category() == libraryCategory())
                    holdings.blocks.erase(address());
                throw;
            }
        }();
        bytes = state.blocksOf(bytes) * state.blockBytes();
        if (state.isStack() && address() != state.entry.pubStartAddr + current.ulTotalFreeBlkNum * state.blockBytes())
            throw Error(call, Errc::NotTopOfStack);
    }
    state.device.release(static_cast<std::uint32_t>(segment()), address(), bytes);
    holdings.blocks.erase(address());
}

void Block::release(std::error_code& error)
{
    orElse(error, false, [&] {
        release();
        return true;
    });
}

BlockRecord Block::detach()
{
    requireHeld("Block::detach");
    const std::lock_guard guard(state_->holdings.mutex);
    state_->holdings.blocks.erase(address());
    return record_;
}

} // namespace velmora
