// The manager's data as a whole: what a power-on puts back, what the state dump shows.
#include "controller/manager_state.h"
#include "support/manager_fixture.h"

namespace velmora::test {
namespace {

class ManagerState : public ManagerTest
{
protected:
    using Bytes = std::vector<std::uint8_t>;

    static Bytes bytesOf(const sim::ManagerVariable& variable)
    {
        const auto* const place = static_cast<const std::uint8_t*>(variable.place);
        return {place, place + variable.bytes};
    }

    // Every word an address that exists.
    static void overwrite(const sim::ManagerVariable& variable)
    {
        const U32 word = sim::kScratch;
        auto* const place = static_cast<std::uint8_t*>(variable.place);
        for (std::size_t i = 0; i < variable.bytes; ++i)
            place[i] = reinterpret_cast<const std::uint8_t*>(&word)[i % sizeof word];
    }

    // What the dump says with a variable overwritten; the variable is as before afterwards.
    static std::string dumpWith(const sim::ManagerVariable& variable)
    {
        const Bytes before = bytesOf(variable);
        overwrite(variable);
        std::string text = sim::dumpManagerState();
        std::memcpy(variable.place, before.data(), before.size());
        return text;
    }
};

TEST_F(ManagerState, PowerOnPutsItBack)
{
    start();
    createBlocks("BLK0", 0x10000, 0x1000);
    U8 name[4] = {'$', 'F', 'I', 'L'};
    MM_DeleteSegment(name);
    MM_RunningMultiJob_Notify(1);
    powerOn();
    EXPECT_EQ(memstart, 0u);
    EXPECT_EQ(hulFloatHandle, 5u);
    EXPECT_EQ(ulRunningMultiJob, 0u);
    EXPECT_EQ(pstMCTTable[0], nullptr);
    EXPECT_EQ(stSegTable[5].pfnAlloc, nullptr);
    EXPECT_EQ(std::memcmp(stDefaultMCTTable[4].aubCFGID, "$FIL", 4), 0);
    EXPECT_EQ(stDefaultMCTTable[0].pubStartAddr, nullptr);
}

TEST_F(ManagerState, PowerOnPutsEveryVariableBack)
{
    std::vector<Bytes> fresh;
    for (const sim::ManagerVariable& variable : sim::managerVariables()) {
        fresh.push_back(bytesOf(variable));
        overwrite(variable);
        EXPECT_NE(bytesOf(variable), fresh.back()) << variable.name;
    }
    powerOn();
    auto expected = fresh.begin();
    for (const sim::ManagerVariable& variable : sim::managerVariables())
        EXPECT_EQ(bytesOf(variable), *expected++) << variable.name;
}

// Before a start the default table is shown, afterwards the one in use.
TEST_F(ManagerState, TheDumpShowsWhatIsSaidToBeInIt)
{
    std::vector<bool> shown(sim::managerVariables().size());
    const auto look = [&] {
        const std::string plain = sim::dumpManagerState();
        auto known = shown.begin();
        for (const sim::ManagerVariable& variable : sim::managerVariables()) {
            *known = *known || dumpWith(variable) != plain;
            ++known;
        }
    };
    look();
    start();
    createBlocks("BLK0", 0x10000, 0x1000);
    createStack("STK0", 0x10000, 0x1000);
    createHeap(0x1000);
    look();
    auto found = shown.begin();
    for (const sim::ManagerVariable& variable : sim::managerVariables())
        EXPECT_EQ(*found++, variable.dumped) << variable.name;
}

} // namespace
} // namespace velmora::test
