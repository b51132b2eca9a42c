// The C interface: each call, and what it answers when it cannot.
#include "client/safe_fixture.hpp"

#include <cerrno>
#include <cstring>
#include <thread>

#include <velmora/velmora.h>

namespace velmora::test {
namespace {

class CInterface : public Safe
{
protected:
    CInterface()
    {
        EXPECT_EQ(velmora_open(controller.device().c_str(), &open), 0);
        options.name = "PAGE";
        options.bytes = 0x10000;
        options.owner_bits = 8;
        EXPECT_EQ(velmora_segment_create(open, &options, &segment), 0);
    }
    ~CInterface() override
    {
        velmora_segment_close(segment);
        velmora_close(open);
    }

    velmora_block* allocate(unsigned bytes, unsigned owner)
    {
        velmora_block* block = nullptr;
        EXPECT_EQ(velmora_allocate(segment, bytes, owner, &block), 0) << velmora_last_error();
        return block;
    }

    velmora_device* open = nullptr;
    velmora_segment* segment = nullptr;
    velmora_segment_options options = VELMORA_SEGMENT_OPTIONS;
};

TEST_F(CInterface, ABlockFromAllocationToRelease)
{
    velmora_block* const block = allocate(0x1800, 3);
    velmora_block_record record;
    velmora_block_get_record(block, &record);
    EXPECT_EQ(record.segment, 5u);
    EXPECT_EQ(record.address, 0x95322000u);
    EXPECT_EQ(record.bytes, 0x1800u);
    EXPECT_EQ(record.owner, 3u);
    EXPECT_EQ(std::string(record.name, 4), "PAGE");
    EXPECT_EQ(velmora_block_held(block), 1);
    EXPECT_EQ(velmora_block_fill(block, 0x5A), 0);
    unsigned physical = 0;
    EXPECT_EQ(velmora_block_physical_address(block, &physical), 0);
    EXPECT_EQ(physical, 0x01322000u);

    velmora_mapping* view = nullptr;
    ASSERT_EQ(velmora_map(block, 0x800, 0x1000, VELMORA_UNCACHED, &view), 0);
    EXPECT_EQ(velmora_mapping_size(view), 0x1000u);
    EXPECT_EQ(static_cast<unsigned char*>(velmora_mapping_data(view))[0xFFF], 0x5A);
    velmora_unmap(view);
    EXPECT_EQ(velmora_map(block, 0x1800, 1, VELMORA_CACHED, &view), VELMORA_BAD_RANGE);

    EXPECT_EQ(velmora_block_release(block), 0);
    EXPECT_EQ(velmora_block_held(block), 0);
    EXPECT_EQ(velmora_block_release(block), VELMORA_NOT_HELD);
    EXPECT_STREQ(velmora_last_error(), "Block::release: this process does not hold the block");
    velmora_block_close(block);
    EXPECT_EQ(allocated(Handle{5}), 0u);
}

TEST_F(CInterface, ABlockGoesFromOneToAnother)
{
    velmora_block* block = allocate(1, 3);
    velmora_block_record record;
    EXPECT_EQ(velmora_block_detach(block, &record), 0);
    velmora_block_close(block);
    velmora_segment* same = nullptr;
    ASSERT_EQ(velmora_segment_find(open, "PAGE", &same), 0);
    EXPECT_EQ(velmora_adopt(same, &record, &block), 0);
    velmora_segment_close(same);
    velmora_block_close(block); // releases
    EXPECT_EQ(allocated(Handle{5}), 0u);
    EXPECT_EQ(velmora_adopt(segment, &record, &block), VELMORA_NOT_HELD);
}

TEST_F(CInterface, UsageIsListed)
{
    velmora_block *const one = allocate(0x1000, 3), *const two = allocate(0x1000, 5);
    velmora_block_release(one);
    velmora_segment_info info;
    size_t count = 0;
    ASSERT_EQ(velmora_segments(open, &info, 1, &count), 0);
    EXPECT_EQ(count, 1u);
    EXPECT_STREQ(info.name, "PAGE");
    EXPECT_EQ(info.blocks, 17u);
    EXPECT_EQ(info.free_blocks, 16u);
    EXPECT_EQ(info.usable, 0);
    EXPECT_EQ(velmora_segment_get_info(segment, &info), 0);
    EXPECT_EQ(info.longest_run, 15u);
    velmora_owner_usage owner;
    ASSERT_EQ(velmora_owners(segment, &owner, 1, &count), 0);
    EXPECT_EQ(owner.owner, 5u);
    EXPECT_EQ(owner.blocks, 1u);
    velmora_free_run runs[2];
    ASSERT_EQ(velmora_free_runs(segment, runs, 2, &count), 0);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(runs[1].start, 0x95323000u);
    velmora_fragmentation_info cut;
    ASSERT_EQ(velmora_fragmentation(segment, &cut), 0);
    EXPECT_EQ(cut.longest_bytes, 15u * 4096);
    EXPECT_DOUBLE_EQ(cut.ratio, 1 - 15.0 / 16);
    velmora_block_close(one);
    velmora_block_close(two);
    EXPECT_EQ(velmora_segments(open, nullptr, 0, &count), 0);
}

TEST_F(CInterface, OwnersAreCollected)
{
    unsigned ids[4];
    EXPECT_EQ(velmora_owner_ids(4, ids, 4), 6u);
    EXPECT_EQ(ids[3], 9u);
    EXPECT_EQ(velmora_owner_ids(3, ids, 4), 0u);
    velmora_block* const block = allocate(1, 3);
    EXPECT_EQ(velmora_collect(segment, 3), 0);
    EXPECT_EQ(velmora_block_held(block), 0);
    velmora_block_close(block);
    EXPECT_EQ(velmora_collect(segment, 0x103), VELMORA_BAD_OWNER);
    EXPECT_EQ(velmora_collect(segment, 0), VELMORA_BAD_OWNER);
}

TEST_F(CInterface, WhatOverflowsIsInTheHeap)
{
    velmora_segment_options heapOptions = VELMORA_SEGMENT_OPTIONS;
    heapOptions.name = "HEAP";
    heapOptions.place = VELMORA_HEAP;
    velmora_segment *heap = nullptr, *told = nullptr;
    ASSERT_EQ(velmora_segment_create(open, &heapOptions, &heap), 0);
    ASSERT_EQ(velmora_segment_heap(open, 4096, 0, &told), 0);
    EXPECT_EQ(velmora_segment_overflow_into(segment, segment, 0), VELMORA_SEGMENT_DIFFERS);
    EXPECT_EQ(velmora_segment_overflow_into(segment, told, 0), 0);
    velmora_block* const block = allocate(0x20000, 3);
    velmora_block_record record;
    velmora_block_get_record(block, &record);
    EXPECT_EQ(record.segment, VELMORA_HEAP_HANDLE);
    velmora_block_close(block);
    EXPECT_EQ(allocatedInHeap(), 0u);
    velmora_fragmentation_info cut;
    EXPECT_EQ(velmora_fragmentation(heap, &cut), VELMORA_NOT_KNOWN);
    velmora_segment_info info;
    EXPECT_EQ(velmora_segment_get_info(heap, &info), VELMORA_NOT_KNOWN);
    velmora_segment_close(heap);
    velmora_segment_close(told);
}

TEST_F(CInterface, FailuresAreCodesWithASentence)
{
    velmora_block* block = nullptr;
    EXPECT_EQ(velmora_allocate(segment, 0x20000, 3, &block), VELMORA_NO_ROOM);
    EXPECT_STREQ(velmora_last_error(), "velmora_allocate: there is no room: 131072 bytes from 'PAGE'");
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(velmora_start_up(open, MM_SM_BKUP_OK, 0), VELMORA_ALREADY_STARTED);
    velmora_segment* other = nullptr;
    EXPECT_EQ(velmora_segment_find(open, "NONE", &other), VELMORA_NO_SUCH_SEGMENT);
    EXPECT_EQ(velmora_segment_find(open, nullptr, &other), VELMORA_BAD_NAME);
    EXPECT_EQ(velmora_segment_create(open, &options, &other), MM_EASSERT);
    EXPECT_EQ(velmora_segment_open_or_create(open, &options, &other), 0);
    velmora_segment_close(other);
    options.struct_bytes = 1;
    EXPECT_EQ(velmora_segment_create(open, &options, &other), -EINVAL);
    velmora_device* device = nullptr;
    EXPECT_EQ(velmora_open("/nonexistent", &device), -ENOENT);
    EXPECT_EQ(device, nullptr);
    MM_TFreeInfo record{5, 0, 1};
    EXPECT_EQ(velmora_command(open, MM_CMD_FREE, &record, sizeof record), MM_EASSERT);
    EXPECT_EQ(velmora_start_up(open, MM_SM_BKUP_OK, 1), 0);
    EXPECT_EQ(velmora_collect(segment, 3), VELMORA_NO_SUCH_SEGMENT);
}

TEST_F(CInterface, EachThreadHasItsOwnLastError)
{
    velmora_collect(segment, 0);
    std::thread([] { EXPECT_STREQ(velmora_last_error(), ""); }).join();
    EXPECT_NE(std::string(velmora_last_error()), "");
    EXPECT_STREQ(velmora_strerror(0), "no error");
    EXPECT_STREQ(velmora_strerror(-EACCES), "Permission denied");
    EXPECT_STREQ(velmora_strerror(VELMORA_NOT_HELD), "this process does not hold the block");
    EXPECT_STREQ(velmora_code_name(14), "EASSERT");
    EXPECT_STREQ(velmora_code_name(VELMORA_HEAP_UNSAFE), "HeapUnsafe");
    EXPECT_EQ(std::string(velmora_version()).find('.'), 1u);
}

} // namespace
} // namespace velmora::test
