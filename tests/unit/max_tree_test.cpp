// The tree of maxima, alone, over plain arrays.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "kernel/mm/mm/MM_MaxTree.h"

namespace velmora::test {
namespace {

template <class TNode> struct Tree {
    explicit Tree(U32 count) : storage(CMMMaxTree<TNode>::StorageWords(count) + 1, 0xDEADBEEF)
    {
        tree.Init(storage.data(), count);
    }
    std::vector<U32> storage; // one word more than the tree may use
    CMMMaxTree<TNode> tree;
};

U32 lastAtLeast(const std::vector<U32>& numbers, U32 limit, U32 least)
{
    for (U32 i = limit; i > 0; --i)
        if (numbers[i - 1] >= least)
            return i - 1;
    return MM_NO_ELEMENT;
}

template <class TNode> class MaxTree : public testing::Test
{
};

using Nodes = testing::Types<CMMWordNode, CMMByteNode>;
TYPED_TEST_SUITE(MaxTree, Nodes);

TEST(MaxTreeStorage, IsALittleMoreThanTheElements)
{
    using Words = CMMMaxTree<CMMWordNode>; // a node: 16 elements in 16 words, and two words about them
    EXPECT_EQ(Words::StorageWords(1), 18u);
    EXPECT_EQ(Words::StorageWords(16), 18u);
    EXPECT_EQ(Words::StorageWords(17), (2 + 1) * 18u);
    EXPECT_EQ(Words::StorageWords(256), (16 + 1) * 18u);
    EXPECT_EQ(Words::StorageWords(257), (17 + 2 + 1) * 18u);
    using Bytes = CMMMaxTree<CMMByteNode>; // 32 elements in 8 words, and the two
    EXPECT_EQ(Bytes::StorageWords(1), 10u);
    EXPECT_EQ(Bytes::StorageWords(32), 10u);
    EXPECT_EQ(Bytes::StorageWords(33), (2 + 1) * 10u);
    EXPECT_EQ(Bytes::StorageWords(1024), (32 + 1) * 10u);
    EXPECT_EQ(Bytes::StorageWords(1025), (33 + 2 + 1) * 10u);
}

TYPED_TEST(MaxTree, FindsNothingWhenEmpty)
{
    for (const U32 count : {1u, 16u, 17u, 32u, 33u, 5000u}) {
        const Tree<TypeParam> t(count);
        EXPECT_EQ(t.tree.Max(), 0u);
        EXPECT_EQ(t.tree.FindLast(1), MM_NO_ELEMENT);
        EXPECT_EQ(t.tree.FindUsedBelow(count), MM_NO_ELEMENT);
        EXPECT_EQ(t.tree.FindUsedBelow(0), MM_NO_ELEMENT);
    }
}

TYPED_TEST(MaxTree, FindsTheFirstElementFromTheLast)
{
    for (const U32 count : {1u, 2u, 16u, 17u, 256u, 257u, 1024u, 1025u, 4096u, 4097u, 70000u}) {
        Tree<TypeParam> t(count);
        t.tree.Set(0, 5);
        EXPECT_EQ(t.tree.FindLast(5), 0u) << count;
        EXPECT_EQ(t.tree.FindLast(6), MM_NO_ELEMENT) << count;
        t.tree.Set(0, 0);
        EXPECT_EQ(t.tree.Max(), 0u);
    }
}

TYPED_TEST(MaxTree, FindsNothingAtOrAboveTheLimit)
{
    Tree<TypeParam> t(600);
    t.tree.Set(300, 9);
    EXPECT_EQ(t.tree.FindUsedBelow(300), MM_NO_ELEMENT);
    EXPECT_EQ(t.tree.FindUsedBelow(301), 300u);
    EXPECT_EQ(t.tree.FindLast(9), 300u);
}

TYPED_TEST(MaxTree, TellsTheLargestNumbersOfANodeApart)
{
    Tree<TypeParam> t(64);
    for (U32 i = 0; i < 64; ++i)
        t.tree.Set(i, 127 - i);
    for (U32 least = 64; least <= 127; ++least)
        EXPECT_EQ(t.tree.FindLast(least), 127 - least);
    EXPECT_EQ(t.tree.Max(), 127u);
}

TYPED_TEST(MaxTree, ANodeTellsEachNumberThatIsAtLeastAsLarge)
{
    constexpr U32 count = 1u << TypeParam::FANOUT_BIT;
    std::mt19937 random(1);
    TypeParam node{};
    U32 numbers[count] = {};
    for (int step = 0; step < 2000; ++step) {
        const U32 index = random() % count;
        const U32 value = random() % 128;
        node.Replace(index, numbers[index], value);
        numbers[index] = value;
        const U32 least = 1 + random() % 127;
        U32 expected = 0;
        for (U32 i = 0; i < count; ++i)
            expected |= U32(numbers[i] >= least) << i;
        ASSERT_EQ(node.AtLeast(least), expected);
        ASSERT_EQ(node.Max(), *std::max_element(numbers, numbers + count));
    }
}

TYPED_TEST(MaxTree, AnswersRandomSequencesAsAPlainArrayDoes)
{
    std::mt19937 random(1);
    for (const U32 count : {1u, 3u, 15u, 16u, 31u, 32u, 33u, 100u, 256u, 300u, 5000u})
        for (const U32 values : {4u, 128u}) { // few: the largest one is there several times
            Tree<TypeParam> t(count);
            std::vector<U32> plain(count, 0);
            for (int step = 0; step < 20000; ++step) {
                const U32 index = random() % count;
                const U32 value = random() % 4 == 0 ? 0 : random() % values;
                t.tree.Set(index, value);
                plain[index] = value;
                ASSERT_EQ(t.tree.Get(index), value);
                ASSERT_EQ(t.tree.Max(), *std::max_element(plain.begin(), plain.end())) << count << " step " << step;
                const U32 limit = random() % (count + 1);
                const U32 least = 1 + random() % 127;
                ASSERT_EQ(t.tree.FindUsedBelow(limit), lastAtLeast(plain, limit, 1)) << count << " step " << step;
                ASSERT_EQ(t.tree.FindLast(least), lastAtLeast(plain, count, least)) << count << " step " << step;
            }
            EXPECT_EQ(t.storage.back(), 0xDEADBEEFu);
        }
}

// Counts how often a node is looked at or written to.
template <class TNode> struct Counted : TNode {
    static inline unsigned visits = 0;

    U32 Get(U32 index) const { return ++visits, TNode::Get(index); }
    void Replace(U32 index, U32 old, U32 value) { ++visits, TNode::Replace(index, old, value); }
    U32 Max() const { return ++visits, TNode::Max(); }
    U32 AtLeast(U32 least) const { return ++visits, TNode::AtLeast(least); }
};

TYPED_TEST(MaxTree, VisitsAFewNodesOfEachLevel)
{
    using Node = Counted<TypeParam>;
    U32 count = 1;
    for (unsigned levels = 1; levels <= 4; ++levels) {
        count <<= TypeParam::FANOUT_BIT;
        Tree<Node> t(count);
        std::mt19937 random(levels);
        const auto visitsOf = [](auto&& call) {
            Node::visits = 0;
            call();
            return Node::visits;
        };
        for (int step = 0; step < 20000; ++step) {
            const U32 index = random() % count;
            const U32 value = random() % 3 * (random() % 43);
            const U32 least = 1 + random() % 100;
            // The element itself; then in each level the number that changes, the old maximum and, if need be, the new one.
            ASSERT_LE(visitsOf([&] { t.tree.Set(index, value); }), 1 + 3 * levels) << count;
            ASSERT_LE(visitsOf([&] { t.tree.FindLast(least); }), levels) << count;
        }
    }
}

} // namespace
} // namespace velmora::test
