#include "fuzz/device.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <tuple>

#include "controller/device.h"
#include "fuzz/open_states.h"
#include "fuzz/target.h"
#include "kernel/mm/mmi/MM_Interface.h"

namespace velmora::fuzz {

using sim::machine;

namespace {

constexpr U32 kRamBytes = 16U << 20;
constexpr U32 kAreaStart = 0x94200000, kAreaEnd = 0x94E00000;
constexpr unsigned long kMostAccesses = 8'000'000; // of one command: making every list again needs far fewer
constexpr unsigned kMostSteps = 600;

void writeWord(U32 address, U32 value)
{
    std::memcpy(sim::Machine::at(address), &value, sizeof value);
}

} // namespace

// While commands run ---------------------------------------------------------------------------------

Scribbler::Scribbler(When when)
{
    if (when == When::BetweenAccesses)
        machine().faults.meanwhile = [this] {
            if (++accesses_ % 3 == 0)
                writeNext();
        };
    if (when == When::InASecondThread)
        thread_ = std::thread([this] {
            while (!stop_)
                writeNext();
        });
}

Scribbler::~Scribbler()
{
    machine().faults.meanwhile = nullptr;
    stop_ = true;
    if (thread_.joinable())
        thread_.join();
}

void Scribbler::add(U32 address, U32 value)
{
    words_[added_++ % words_.size()] = std::uint64_t(value) << 32 | address;
}

void Scribbler::writeNext()
{
    const std::uint64_t word = words_[next_++ % words_.size()];
    if (word != 0)
        writeWord(static_cast<U32>(word), static_cast<U32>(word >> 32));
}

// Steps ----------------------------------------------------------------------------------------------

// The first byte: bits 0 to 1 what happens while commands run, bit 2 nothing is started for the clients.
std::string DevicePlayer::play()
{
    const U32 how = in_.byte();
    boot((how & 4) == 0);
    {
        scribbled_ = how % 4 % 3 != 0;
        Scribbler scribbler(static_cast<Scribbler::When>(how % 4 % 3));
        for (unsigned steps = 0; in_.more() && steps < kMostSteps && mistake_.empty(); ++steps)
            step(scribbler);
    }
    if (mistake_.empty())
        settle();
    return mistake_;
}

void DevicePlayer::boot(bool start)
{
    sim::bootController(kAreaStart, kAreaEnd, kRamBytes);
    machine().faults.touchLimit = kMostAccesses;
    openOrClose();
    if (!start)
        return;
    send(MM_CMD_ENTRY, TMMInitOption{MM_CONSTRUCT_DEFAULT_MCT});
    send(MM_CMD_LIB_ENTRY, TLibEntryInfo{SM_BKUP_OK, 0});
}

void DevicePlayer::step(Scribbler& scribbler)
{
    const U32 what = in_.byte();
    switch (what < 240 ? what % 20 : what) {
    case 0: send(MM_CMD_ENTRY, TMMInitOption{in_.below(16) == 0 ? in_.odd() : U32(MM_CONSTRUCT_DEFAULT_MCT)}); break;
    case 1: send(MM_CMD_LIB_ENTRY, TLibEntryInfo{in_.below(8), 0}); break;
    case 2: send(MM_CMD_COLLECT_GARBAGE, TCollectGarbageInfo{handle(), static_cast<U8>(in_.byte()), {}}); break;
    case 3: send(MM_CMD_MEMSET, TMemsetInfo{address(), static_cast<S32>(in_.byte()), in_.odd() % 0x20000}); break;
    case 4: askAny(); break;
    case 5: rowsAny(); break;
    case 6: mapAny(); break;
    case 7: openOrClose(); break;
    case 8: rawCommand(); break;
    case 9: badPointer(); break;
    case 10:
    case 11: write(address(), in_.odd()); break;
    case 12:
        if (const U32 place = address(), value = in_.odd();
            mayWrite(place, sizeof value) && !isLeftOut(Open::OverwrittenMemory))
            scribbler.add(place, value);
        break;
    case 13:
    case 14: createAny(); break;
    case 15:
    case 16: releaseAny(); break;
    case 17:
    case 18:
    case 19: allocateAny(); break;
    default: releaseAmongRuins(); break;
    }
    std::ignore = machine().takeLog();
}

U32 DevicePlayer::handle()
{
    const U32 which = in_.byte();
    return which < 8 ? in_.odd() : which < 64 ? U32(HEAPHANDLE) : which % 12;
}

// One of those that are held; there is one.
Books::Pieces::const_iterator DevicePlayer::pieceAt(U32 number) const
{
    const auto& pieces = books_.pieces();
    return std::next(pieces.begin(), static_cast<std::ptrdiff_t>(number % pieces.size()));
}

// Where something may be hit: what is held, headers of free runs, maps, anywhere.
U32 DevicePlayer::address()
{
    const U32 which = in_.byte();
    const U32 more = in_.byte();
    if (which < 96 && !books_.pieces().empty()) {
        const auto piece = pieceAt(more % 64);
        return which < 40   ? piece->first
               : which < 72 ? piece->first + piece->second.bytes + in_.byte() % 16
                            : piece->first + in_.odd() % 0x2000;
    }
    if (which < 160) {
        const U32 segment = more < 160 ? more % 12 : U32(HEAPHANDLE);
        const U32 places[] = {MM_Addr(astBlkHead[segment].pstBlk),
                              MM_Addr(astBlkTail[segment].pstBlk),
                              MM_Addr(stSegTable[segment].pubMapStartAddr),
                              MM_Addr(stSegTable[segment].pubStartAddr),
                              MM_Addr(astStackStr[segment].pubStackHead),
                              stSegStartAddr.aulHeapAddr[0],
                              stSegMapStartAddr.aulHeapAddr[0]};
        return places[which % std::size(places)] + in_.byte() % 16;
    }
    return which < 224 ? memstart + in_.word() % (memend - memstart) : in_.odd();
}

void DevicePlayer::createAny()
{
    static constexpr const char* fixed[] = {"$RJL", "$JCB", "$UEV", "$FIL", "$MCT", "$NEW"};
    static constexpr U8 maps[] = {0, 1, 2, 4, 8, 3};
    TSegInfoFromApp info{};
    const U32 which = in_.byte();
    info.ubType = static_cast<U8>(which % 4 == 3 ? (which / 4) % 256 : which % 4);
    const char name[5] = {'S', 'E', 'G', static_cast<char>('A' + which / 4 % 16), 0};
    std::memcpy(info.aubSegID, info.ubType == FIXED ? fixed[which / 4 % std::size(fixed)] : name, sizeof info.aubSegID);
    const U32 kind = in_.byte();
    info.ubSegDSType = static_cast<U8>(kind % 16 == 15 ? kind : kind % 4 == 3 ? U32(STACK) : U32(LINKEDLIST));
    info.ubMap = maps[kind / 16 % std::size(maps)];
    const U32 sizes = in_.byte();
    info.ubSemaphore = static_cast<U8>(sizes & 1);
    info.ubVM = (sizes & 2) != 0;
    info.ulBlkSize = sizes < 224 ? 16U << (sizes / 4 % 9) : in_.odd();
    const U32 blocks = in_.half();
    info.ulSegSize = blocks < 0x1000 ? 0 : blocks < 0xF000 ? (blocks % 0x400) * 4096 : in_.odd();
    info.hulHandle = in_.byte();
    send(MM_CMD_CREATE_SEGMENT, info);
}

void DevicePlayer::allocateAny()
{
    const U32 segment = handle();
    const U32 which = in_.byte();
    const U32 unit = 1U << stSegTable[segment < MAX_SEGTABLE_SIZE ? segment : 0].ubBlkBit % 32;
    const U32 bytes = which < 16 ? in_.odd() : which < 128 ? unit * (which % 16) + 1 : in_.half();
    const U32 owner = in_.byte();
    send(MM_CMD_MALLOC, TMallocInfo{segment, bytes, static_cast<U8>(owner < 192 ? owner % 3 : owner), {}, 0});
}

void DevicePlayer::releaseAny()
{
    const U32 which = in_.byte();
    if (which >= 208 || books_.pieces().empty()) {
        const U32 segment = handle();
        const U32 place = address();
        send(MM_CMD_FREE, TFreeInfo{segment, place, in_.odd()});
        return;
    }
    const auto piece = pieceAt(in_.half());
    U32 place = piece->first;
    U32 bytes = piece->second.bytes;
    if (stSegTable[piece->second.handle].pfnFree == MM_FreeBlk && which >= 128) { // a part of it
        const U32 unit = 1U << stSegTable[piece->second.handle].ubBlkBit;
        const U32 first = in_.byte() % (bytes / unit);
        place += first * unit;
        bytes = (1 + in_.byte() % (bytes / unit - first)) * unit;
    }
    send(MM_CMD_FREE, TFreeInfo{piece->second.handle, place, bytes});
}

void DevicePlayer::write(U32 address, U32 value)
{
    if (!mayWrite(address, sizeof value))
        return;
    writeWord(address, value);
    scribbled_ = true;
}

// Writes over the header of the run that may begin behind a block, where a release looks, and releases the block.
void DevicePlayer::releaseAmongRuins()
{
    if (books_.pieces().empty())
        return;
    const auto piece = pieceAt(in_.half());
    const U32 start = piece->first;
    const Books::Piece held = piece->second;
    const U32 place = start + held.bytes + in_.below(3) * 4;
    write(place, in_.odd());
    send(MM_CMD_FREE, TFreeInfo{held.handle, start, held.bytes});
}

void DevicePlayer::askAny()
{
    const U32 which = in_.below(5);
    if (which == 0)
        send(MM_CMD_CHECK_SEGMENT, TCheckSegmentInfo{handle(), address(), 0, {}});
    if (which == 1)
        send(MM_CMD_DISPLAY_MST, TDisplayMSTInfo{in_.byte() < 128 ? U32(MM_DISPLAY_ALL) : in_.odd(), 0, {}});
    TGetMSTInfo mst{};
    mst.hubHandle = static_cast<U8>(in_.byte());
    if (which == 2)
        send(MM_CMD_GET_MST, mst);
    TGetMCTInfo mct{};
    mct.cfgid = static_cast<U8>(in_.below(8));
    if (which == 3)
        send(MM_CMD_GET_MCT, mct);
    TQueryPhysAddrInfo phys{};
    phys.ulStart = in_.odd();
    if (which == 4)
        send(MM_CMD_QUERY_PHYS_ADDR, phys);
}

void DevicePlayer::rowsAny()
{
    static constexpr char names[][5] = {"$RJL", "$JCB", "$UEV", "$FIL", "$ALL", "$MCT", " ", "NONE"};
    const U32 which = in_.byte();
    TAddSegmentInfo row{};
    std::memcpy(row.aubCFGID, names[which % std::size(names)], sizeof row.aubCFGID);
    if (which < 200) {
        send(MM_CMD_CLEAR_SEGMENT, row);
        return;
    }
    TDeleteSegmentInfo gone{};
    std::memcpy(gone.aubCFGID, row.aubCFGID, sizeof gone.aubCFGID);
    if (which < 232)
        send(MM_CMD_DELETE_SEGMENT, gone);
    else
        send(MM_CMD_ADD_SEGMENT, row);
}

void DevicePlayer::mapAny()
{
    sim::MapTarget target;
    const U32 page = in_.byte() < 64 ? in_.odd() : address() >> MMP_PAGE_SHIFT;
    const U32 bytes = in_.byte() < 64 ? in_.odd() : in_.half() * 64;
    TMMMapRequest request{page, 0x20000000, 0x20000000 + bytes, static_cast<BOOL>(in_.below(2)), &target};
    const int answer = runEntry([&] { return Velmora_MM_mmap(&request); });
    if (isLeftOut(Open::AnyMapping) || answer != 0)
        return;
    const std::uint64_t start = std::uint64_t(page) << MMP_PAGE_SHIFT;
    if (start < memstart || start + bytes > memend)
        note("a mapping that leaves the managed area was granted");
}

void DevicePlayer::openOrClose()
{
    if (opens_ != 0 && in_.below(2) == 0) {
        --opens_;
        runEntry([] { return Velmora_MM_release(); });
    } else if (opens_ < 3) {
        ++opens_;
        runEntry([] { return Velmora_MM_open(); });
    }
}

void DevicePlayer::rawCommand()
{
    const U32 number = in_.byte() < 240 ? MM_CMD_FIRST + in_.below(MM_CMD_COUNT + 1) : in_.word();
    std::array<std::uint8_t, 128> record{};
    for (std::uint8_t& byte : record)
        byte = static_cast<std::uint8_t>(in_.byte());
    send(number, record.data(), 88);
}

// The record is not in the caller's memory, or not all of it.
void DevicePlayer::badPointer()
{
    static constexpr U32 pointers[] = {
        0,          1,          sim::kScratch - 4, sim::kScratch + sim::kScratchBytes - 3, sim::kUserLimit - 2,
        0x94300000, 0xFFFFFFFF, 0xFFFFFFF0};
    const U32 number = MM_CMD_FIRST + in_.below(MM_CMD_COUNT);
    const U32 pointer = pointers[in_.below(std::size(pointers))];
    if (const int answer = runEntry([=] { return Velmora_MM_ioctl(number, pointer); }); answer != -22 && answer != -14)
        note("a record that is not there was answered with " + std::to_string(answer));
}

// The target ------------------------------------------------------------------------------------------

const char* const kTargetName = "fuzz-device";
const char* const kTargetDoes = "clients of the device who send anything and write anywhere";

std::string playInput(const std::uint8_t* data, std::size_t size)
{
    return DevicePlayer(data, size).play();
}

} // namespace velmora::fuzz
