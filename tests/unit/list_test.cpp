// The free lists' operations, for each kind of list, over nodes that lie in plain memory.
#include "kernel/mm/mm/MM_List.h"
#include "support/manager_fixture.h"

namespace velmora::test {
namespace {

constexpr U32 kA = 0x95400000, kB = 0x95500001, kC = 0x95600003, kNew = 0x95580002; // at any byte, in address order
constexpr U32 kFar = 0x95800000;                                                    // in no list
constexpr U32 kHandle = 7;

// One node as its three fields: neighbours' addresses, size.
struct Fields {
    U32 next, back, size;
    bool operator==(const Fields&) const = default;
    friend void PrintTo(const Fields& fields, std::ostream* out)
    {
        *out << std::hex << "next 0x" << fields.next << ", back 0x" << fields.back << std::dec << ", size "
             << fields.size;
    }
};

Fields fieldsAt(U32 address)
{
    return {MM_Addr(node(address)->pstNext), MM_Addr(node(address)->pstBack), node(address)->ulSize};
}

template <class List> class FreeLists : public ManagerTest
{
protected:
    // Makes the nodes at these addresses the list; sizes 10, 20, 30 and so on.
    void link(const std::vector<U32>& addresses)
    {
        list.Head() = list.Tail() = nullptr;
        U32 size = 0;
        for (const U32 address : addresses)
            append(list, address, size += 10);
    }
    // Exactly these nodes, in order, are linked both ways between head and tail.
    void expectLinked(const std::vector<U32>& addresses)
    {
        const std::size_t count = addresses.size();
        EXPECT_EQ(MM_Addr(list.Head()), count == 0 ? 0 : addresses.front());
        EXPECT_EQ(MM_Addr(list.Tail()), count == 0 ? 0 : addresses.back());
        for (std::size_t i = 0; i < count; ++i) {
            EXPECT_EQ(fieldsAt(addresses[i]).next, i + 1 < count ? addresses[i + 1] : 0) << "node " << i;
            EXPECT_EQ(fieldsAt(addresses[i]).back, i > 0 ? addresses[i - 1] : 0) << "node " << i;
        }
    }
    // Bytes around and behind a header are no list's business.
    static void expectNothingElseWritten(U32 address)
    {
        EXPECT_TRUE(isFilled(address - 16, 0xA5, 16));
        EXPECT_TRUE(isFilled(address + 12, 0xA5, 52));
    }

    List list = [] {
        if constexpr (std::is_same_v<List, TMMRunList>)
            return List{kHandle};
        else
            return List{};
    }();
};

using Lists = ::testing::Types<TMMFreeMemoryList, TMMFreeMemoryLinks, TMMRunList>;
TYPED_TEST_SUITE(FreeLists, Lists);

TYPED_TEST(FreeLists, ANodeThatIsTakenOutKeepsItsFieldsAndItsNeighboursMeet)
{
    const struct {
        U32 taken;
        std::vector<U32> left;
        Fields fields;
    } cases[] = {
        {kA, {kB, kC}, {kB, 0, 10}},
        {kB, {kA, kC}, {kC, kA, 20}},
        {kC, {kA, kB}, {0, kB, 30}},
    };
    for (const auto& c : cases) {
        this->link({kA, kB, kC});
        MM_Unlink(this->list, node(c.taken));
        this->expectLinked(c.left);
        EXPECT_EQ(fieldsAt(c.taken), c.fields);
    }
}

TYPED_TEST(FreeLists, TheOnlyNodeTakenOutLeavesAnEmptyList)
{
    this->link({kB});
    MM_Unlink(this->list, node(kB));
    this->expectLinked({});
}

TYPED_TEST(FreeLists, ANodeThatMovesIsPointedToWhereItIs)
{
    const struct {
        U32 moved;
        std::vector<U32> linked;
    } cases[] = {{kA, {kNew, kB, kC}}, {kB, {kA, kNew, kC}}, {kC, {kA, kB, kNew}}};
    for (const auto& c : cases) {
        this->link({kA, kB, kC});
        const TMMNode fields = MM_ReadNode(node(c.moved));
        MM_WriteNode(node(kNew), fields);
        MM_Repoint(this->list, node(c.moved), fields, node(kNew));
        this->expectLinked(c.linked);
    }
    this->link({kB});
    MM_WriteNode(node(kNew), {nullptr, nullptr, 5});
    MM_Repoint(this->list, node(kB), {nullptr, nullptr, 10}, node(kNew));
    this->expectLinked({kNew});
}

TYPED_TEST(FreeLists, ANewNodeStandsRightBehindItsLowerNeighbour)
{
    this->link({kA, kB, kC});
    MM_InsertAfter(this->list, node(kB), node(kNew), 77);
    this->expectLinked({kA, kB, kNew, kC});
    EXPECT_EQ(fieldsAt(kNew), (Fields{kC, kB, 77}));
    EXPECT_EQ(fieldsAt(kB).size, 20U);

    this->link({kA, kB});
    MM_InsertAfter(this->list, node(kB), node(kNew), 78);
    this->expectLinked({kA, kB, kNew});
    EXPECT_EQ(fieldsAt(kNew), (Fields{0, kB, 78}));
}

TYPED_TEST(FreeLists, OnlyTheTwelveBytesOfAHeaderAreWritten)
{
    for (const U32 address : {kA, kB, kC, kNew})
        this->fill(address - 16, 0xA5, 80);
    this->link({kA, kB, kC});
    MM_InsertAfter(this->list, node(kA), node(kNew), 4);
    MM_Unlink(this->list, node(kNew));
    MM_Repoint(this->list, node(kB), MM_ReadNode(node(kB)), node(kNew));
    for (const U32 address : {kA, kB, kC, kNew})
        this->expectNothingElseWritten(address);
}

// What an end is ------------------------------------------------------------------------------------------

class ListEnds : public ManagerTest
{
protected:
    static void writeNode(U32 address, U32 next, U32 back) { MM_WriteNode(node(address), {node(next), node(back), 1}); }
};

TEST_F(ListEnds, OfTheFreeMemoryAreItsHeadAndTailWhateverTheirLinksSay)
{
    setFreeMemory({{kA, 10}});
    writeNode(kA, kFar, kFar);
    writeNode(kFar, 0x1111, 0x2222);
    MM_Unlink(TMMFreeMemoryList{}, node(kA));
    EXPECT_EQ(pstSegBlkHead, nullptr);
    EXPECT_EQ(pstSegBlkTail, nullptr);
    EXPECT_EQ(fieldsAt(kFar), (Fields{0x1111, 0x2222, 1}));
}

TEST_F(ListEnds, OfTheFreeMemoryByItsLinksAreWhereALinkIsNull)
{
    setFreeMemory({{kA, 10}});
    writeNode(kA, kFar, kFar);
    writeNode(kFar, 0x1111, 0x2222);
    MM_Unlink(TMMFreeMemoryLinks{}, node(kA));
    EXPECT_EQ(MM_Addr(pstSegBlkHead), kA); // no end: others are changed
    EXPECT_EQ(MM_Addr(pstSegBlkTail), kA);
    EXPECT_EQ(fieldsAt(kFar), (Fields{kFar, kFar, 1}));
}

TEST_F(ListEnds, OfARunListAreWhereALinkIsNull)
{
    astBlkHead[kHandle].pstBlk = node(kA);
    astBlkTail[kHandle].pstBlk = node(kC);
    writeNode(kA, kB, 0);
    writeNode(kB, kC, 0); // the middle one looks like a first one
    writeNode(kC, 0, kB);
    MM_Unlink(TMMRunList{kHandle}, node(kB));
    EXPECT_EQ(MM_Addr(astBlkHead[kHandle].pstBlk), kC);
    EXPECT_EQ(MM_Addr(astBlkTail[kHandle].pstBlk), kC);
    EXPECT_EQ(fieldsAt(kA), (Fields{kB, 0, 1}));
    EXPECT_EQ(fieldsAt(kC), (Fields{0, 0, 1}));
}

TEST_F(ListEnds, OfOneSegmentAreNotThoseOfAnother)
{
    astBlkHead[kHandle].pstBlk = astBlkTail[kHandle].pstBlk = node(kA);
    astBlkHead[8].pstBlk = astBlkTail[8].pstBlk = node(kB);
    setFreeMemory({{kC, 10}});
    writeNode(kA, 0, 0);
    MM_Unlink(TMMRunList{kHandle}, node(kA));
    EXPECT_EQ(astBlkHead[kHandle].pstBlk, nullptr);
    EXPECT_EQ(astBlkTail[kHandle].pstBlk, nullptr);
    EXPECT_EQ(MM_Addr(astBlkHead[8].pstBlk), kB);
    EXPECT_EQ(MM_Addr(pstSegBlkHead), kC);
}

// Searches ------------------------------------------------------------------------------------------------

class ListSearch : public ManagerTest
{
protected:
    ListSearch() { setFreeMemory({{kA, 5}, {kB, 0x80000000}, {kNew, 5}, {kC, 0x80000000}, {kFar, 7}}); }
};

TEST_F(ListSearch, TheLargestNodeIsTheFirstOfEquals)
{
    EXPECT_EQ(MM_Addr(MM_LargestNode(pstSegBlkHead)), kB); // sizes have no sign
    EXPECT_EQ(MM_LargestSize(pstSegBlkHead), 0x80000000U);
}

TEST_F(ListSearch, ANodeOfSizeZeroIsTheLargestOfItsKind)
{
    setFreeMemory({{kA, 0}, {kB, 0}});
    EXPECT_EQ(MM_Addr(MM_LargestNode(pstSegBlkHead)), kA);
    EXPECT_EQ(MM_LargestSize(pstSegBlkHead), 0U);
}

TEST_F(ListSearch, TheBestFitIsTheSmallestThatFitsTheFirstOfEquals)
{
    const auto atLeast = [](U32 bytes) { return [bytes](const TMMBlkStr* free) { return MM_Size(free) >= bytes; }; };
    EXPECT_EQ(MM_Addr(MM_BestFit(pstSegBlkHead, atLeast(1))), kA);
    EXPECT_EQ(MM_Addr(MM_BestFit(pstSegBlkHead, atLeast(6))), kFar);
    EXPECT_EQ(MM_Addr(MM_BestFit(pstSegBlkHead, atLeast(8))), kB);
    EXPECT_EQ(MM_BestFit(pstSegBlkHead, atLeast(0x80000001)), nullptr);
}

TEST_F(ListSearch, AnEmptyListHasNeither)
{
    EXPECT_EQ(MM_LargestNode(nullptr), nullptr);
    EXPECT_EQ(MM_LargestSize(nullptr), 0U);
    EXPECT_EQ(MM_BestFit(nullptr, [](const TMMBlkStr*) { return true; }), nullptr);
}

TEST_F(ListSearch, ARunEndsAfterItsBlocks)
{
    node(kA)->ulSize = 3;
    EXPECT_EQ(MM_RunEnd(node(kA), 6), kA + 192);
    EXPECT_EQ(MM_RunEnd(node(kA), 0), kA + 3);
    node(kA)->ulSize = 0x10000000; // 64 of them: 2^34 bytes, of which 32 bits remain
    EXPECT_EQ(MM_RunEnd(node(kA), 6), kA);
}

// Accesses ------------------------------------------------------------------------------------------------

TEST_F(ListSearch, AFieldThatDoesNotExistIsNamedByItsFirstByte)
{
    const struct {
        const char* name;
        std::function<U32()> access;
        U32 address;
    } cases[] = {
        {"next", [] { return MM_Addr(MM_Next(node(0x1000))); }, 0x1000},
        {"back", [] { return MM_Addr(MM_Back(node(0x1000))); }, 0x1004},
        {"size", [] { return MM_Size(node(0x1000)); }, 0x1008},
        {"half of the size", [] { return MM_Size(node(sim::kHighMemory - 10)); }, sim::kHighMemory},
        {"next, written", [] { return MM_SetNext(node(0x1000), nullptr), 0; }, 0x1000},
        {"back, written", [] { return MM_SetBack(node(0x1000), nullptr), 0; }, 0x1004},
        {"size, written", [] { return MM_SetSize(node(0x1000), 0), 0; }, 0x1008},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Outcome outcome = machine().run(c.access);
        EXPECT_EQ(outcome.kind, Outcome::Kind::Oops);
        EXPECT_EQ(outcome.address, c.address);
    }
}

} // namespace
} // namespace velmora::test
