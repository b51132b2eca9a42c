// The tree of maxima, alone, over plain arrays.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "../../kernel/mm/mm/MM_MaxTree.h"

namespace velmora::test {
namespace {

struct Tree {
    explicit Tree(U32 count) : storage(CMMMaxTree::StorageWords(count) + 1, 0xDEADBEEF) { tree.Init(storage.data(), count); }
    std::vector<U32> storage; // one word more than the tree may use
    CMMMaxTree tree;
};

U32 lastAtLeast(const std::vector<U32>& numbers, U32 limit, U32 least)
{
    for (U32 i = limit; i > 0; --i)
        if (numbers[i - 1] >= least)
            return i - 1;
    return CMMMaxTree::NONE;
}

TEST(MaxTree, StorageIsALittleMoreThanTheElements)
{
    EXPECT_EQ(CMMMaxTree::StorageWords(1), 16u);
    EXPECT_EQ(CMMMaxTree::StorageWords(16), 16u);
    EXPECT_EQ(CMMMaxTree::StorageWords(17), 32u + 16u);
    EXPECT_EQ(CMMMaxTree::StorageWords(256), 256u + 16u);
    EXPECT_EQ(CMMMaxTree::StorageWords(257), 272u + 32u + 16u);
}

TEST(MaxTree, AnEmptyTreeFindsNothing)
{
    for (const U32 count : {1u, 16u, 17u, 5000u}) {
        const Tree t(count);
        EXPECT_EQ(t.tree.Max(), 0u);
        EXPECT_EQ(t.tree.FindLast(1), CMMMaxTree::NONE);
        EXPECT_EQ(t.tree.FindLastBelow(count, 1), CMMMaxTree::NONE);
        EXPECT_EQ(t.tree.FindLastBelow(0, 1), CMMMaxTree::NONE);
    }
}

TEST(MaxTree, TheFirstElementIsFoundFromTheLast)
{
    for (const U32 count : {1u, 2u, 16u, 17u, 256u, 257u, 4096u, 4097u, 70000u}) {
        Tree t(count);
        t.tree.Set(0, 5);
        EXPECT_EQ(t.tree.FindLast(5), 0u) << count;
        EXPECT_EQ(t.tree.FindLast(6), CMMMaxTree::NONE) << count;
        t.tree.Set(0, 0);
        EXPECT_EQ(t.tree.Max(), 0u);
    }
}

TEST(MaxTree, ElementsAboveTheLimitAreNotFound)
{
    Tree t(600);
    t.tree.Set(300, 9);
    EXPECT_EQ(t.tree.FindLastBelow(300, 1), CMMMaxTree::NONE);
    EXPECT_EQ(t.tree.FindLastBelow(301, 1), 300u);
    EXPECT_EQ(t.tree.FindLast(9), 300u);
}

TEST(MaxTree, RandomSequencesAnswerAsAPlainArrayDoes)
{
    std::mt19937 random(1);
    for (const U32 count : {1u, 15u, 16u, 31u, 100u, 256u, 300u, 5000u}) {
        Tree t(count);
        std::vector<U32> plain(count, 0);
        for (int step = 0; step < 20000; ++step) {
            const U32 index = random() % count;
            const U32 value = random() % 4 == 0 ? 0 : random() % 50;
            t.tree.Set(index, value);
            plain[index] = value;
            ASSERT_EQ(t.tree.Get(index), value);
            ASSERT_EQ(t.tree.Max(), *std::max_element(plain.begin(), plain.end())) << count << " step " << step;
            const U32 limit = random() % (count + 1);
            const U32 least = 1 + random() % 55;
            ASSERT_EQ(t.tree.FindLastBelow(limit, least), lastAtLeast(plain, limit, least)) << count << " step " << step;
            ASSERT_EQ(t.tree.FindLast(least), lastAtLeast(plain, count, least)) << count << " step " << step;
        }
        EXPECT_EQ(t.storage.back(), 0xDEADBEEFu);
    }
}

} // namespace
} // namespace velmora::test
