/*
 * velmora_mm_peer - other kernel code that uses the memory manager: a thread and a timer allocate blocks of one
 * segment and give them back, while user space does the same through the device.
 *
 * /proc/velmora_mm_peer takes "allocate", "release" or "survey"; reading it tells how far the work is.
 */
#include <linux/delay.h>
#include <linux/kernel.h>
#include <linux/kthread.h>

#include "../compat.h"
#include "MM.h"

enum { PARTY_BLOCKS = 150, TIMER_BLOCKS_A_TICK = 5, BLOCK_BYTES = 4096, THREAD_OWNER = 2, TIMER_OWNER = 3 };

enum { IDLE, ALLOCATE, RELEASE };

struct party {
	int work;
	unsigned int held;
	U32 blocks[PARTY_BLOCKS];
};

static unsigned int handle;
module_param(handle, uint, 0);

static struct party thread_party, timer_party;
static struct task_struct *thread;
static bool stopping;
static bool mapped; /* the segment records owners */
static atomic_t failed = ATOMIC_INIT(0);

/* One block further; false when the party is done. */
static bool step(struct party *party, U8 owner)
{
	U32 address;

	switch (READ_ONCE(party->work)) {
	case ALLOCATE:
		if (party->held == PARTY_BLOCKS)
			break;
		address = MM_Malloc(handle, BLOCK_BYTES, mapped ? owner : 0);
		if (address == 0 || address == 0xFFFFFFFF) {
			atomic_inc(&failed);
			break;
		}
		party->blocks[party->held++] = address;
		return true;
	case RELEASE:
		if (party->held == 0)
			break;
		if (MM_Free(handle, (U8 *)party->blocks[--party->held], BLOCK_BYTES) != ENOERR)
			atomic_inc(&failed);
		return true;
	default:
		return false;
	}
	WRITE_ONCE(party->work, IDLE);
	return false;
}

static int thread_work(void *unused)
{
	while (!kthread_should_stop()) {
		if (step(&thread_party, THREAD_OWNER))
			cond_resched();
		else
			msleep(2);
	}
	return 0;
}

static void timer_work(void);
TEST_TIMER(timer, timer_work)

static void timer_work(void)
{
	int i;

	for (i = 0; i < TIMER_BLOCKS_A_TICK && step(&timer_party, TIMER_OWNER); i++)
		;
	if (!READ_ONCE(stopping))
		mod_timer(&timer, jiffies + 1);
}

#define EXPECT(condition)                                                          \
	do {                                                                       \
		if (!(condition)) {                                                \
			pr_err("velmora_mm_peer: %s does not hold\n", #condition); \
			atomic_inc(&failed);                                       \
		}                                                                  \
	} while (0)

/* Every kind of exported call once, on the given segment and on the heap. */
static void survey(void)
{
	TMMSegInfo entry;
	TMSTInfo *summary = MM_ReadMST(handle);
	U32 blocks = MM_GetTotBlk(handle), address, total, available, size;
	U8 name[4] = { '$', 'R', 'J', 'L' };

	EXPECT(MM_GetMST(handle, &entry) == 0);
	EXPECT(entry.ulTotalBlkNum == blocks);
	EXPECT(MM_CheckSegInitCompleted(handle) == 1);
	EXPECT(summary->ulBlkSize == BLOCK_BYTES);
	EXPECT(summary->pubStartSegAddr == entry.pubStartAddr);
	EXPECT(MM_GetStartAddrOfSegment(handle) == entry.pubStartAddr);
	EXPECT((U8 *)MM_GetEndAddrOfSegment(handle) == entry.pubEndAddr);
	EXPECT(MM_GetRCBEnd(handle) == entry.pubEndAddr);
	EXPECT(MM_GetInitTotBlk(handle) == blocks);
	EXPECT(MM_GetTotAvailBlk(handle) == blocks);
	EXPECT(MM_GetLargestBlk(handle) == blocks);
	EXPECT(MM_GetPhysAddr(handle, (U32)entry.pubStartAddr) == (U32)__pa(entry.pubStartAddr));
	EXPECT(MM_CheckSegment(handle, (U32)entry.pubStartAddr));
	MM_ReadMCT(name, &address, &size);
	EXPECT(address != 0 && size == 4096);
	MM_GetTotalMemoryStatus(&total, &available);
	EXPECT(total != 0 && available == total);

	/* blocks, reallocation at a chosen place, release */
	address = MM_AllocBlock(handle, 2, 1);
	EXPECT(address == (U32)entry.pubEndAddr - 2 * BLOCK_BYTES);
	EXPECT(MM_FreeBlock(handle, (U8 *)address, 2) == ENOERR);
	EXPECT(MM_ReallocBlock(handle, entry.pubStartAddr + 4 * BLOCK_BYTES, 3) == ENOERR);
	EXPECT(MM_GetTotAvailBlk(handle) == blocks - 3);
	EXPECT(MM_AllocBlock(handle, 1, 9) != 0);
	EXPECT(MM_CollectGarbage(handle, 9) == ENOERR);
	EXPECT(MM_GetTotAvailBlk(handle) == blocks - 3);

	/* the heap and its permanent blocks */
	MM_GetCollationCopyMemoryStatus(&total, &available);
	EXPECT(total != 0 && available == total);
	MM_RunningMultiJob_Notify(1);
	address = MM_AllocBlock(HEAPHANDLE_ALIAS, 2, 1);
	MM_RunningMultiJob_Notify(0);
	EXPECT(address != 0 && address != 0xFFFFFFFF);
	EXPECT(MM_CheckPermanentBlk(address, 2) == 0);
	EXPECT(MM_CheckHeapArea((U8 *)address));
	EXPECT(!MM_CheckHeapArea(entry.pubStartAddr));
	MM_SetPermanentBlk(address, 2);
	EXPECT(MM_GetPermanentStartBlk() == address);
	EXPECT(MM_CheckPermanentBlk(address, 2) == 1);
	MM_ReleasePermanentBlk(address, 2);
	EXPECT(MM_GetPermanentStartBlk() == 0);
	address = MM_AllocBlock(HEAPHANDLE, 1, 1);
	MM_SetPermanentBlk(address, 1);
	MM_RlsAllPermanentBlk();
	EXPECT(MM_GetTotAvailBlk(HEAPHANDLE) == MM_GetTotBlk(HEAPHANDLE));
}

static ssize_t peer_write(struct file *file, const char __user *from, size_t count, loff_t *offset)
{
	char word[16] = "";

	if (count >= sizeof(word) || copy_from_user(word, from, count))
		return -EINVAL;
	if (strcmp(word, "survey") == 0) {
		survey();
	} else if (strcmp(word, "allocate") == 0) {
		WRITE_ONCE(thread_party.work, ALLOCATE);
		WRITE_ONCE(timer_party.work, ALLOCATE);
	} else if (strcmp(word, "release") == 0) {
		WRITE_ONCE(thread_party.work, RELEASE);
		WRITE_ONCE(timer_party.work, RELEASE);
	} else {
		return -EINVAL;
	}
	return count;
}

static ssize_t peer_read(struct file *file, char __user *to, size_t count, loff_t *offset)
{
	char text[128];
	int busy = READ_ONCE(thread_party.work) != IDLE || READ_ONCE(timer_party.work) != IDLE;
	int length = scnprintf(text, sizeof(text), "busy=%d thread=%u timer=%u failed=%d allocated=%u\n", busy,
			       thread_party.held, timer_party.held, atomic_read(&failed),
			       handle < MAX_SEGTABLE_SIZE ? MM_GetInitTotBlk(handle) - MM_GetTotAvailBlk(handle) : 0);

	return simple_read_from_buffer(to, count, offset, text, length);
}

TEST_PROC_FILE(velmora_mm_peer, peer_read, peer_write)

static int __init peer_init(void)
{
	TMMSegInfo entry;

	if (MM_GetMST(handle, &entry) != 0)
		return -EINVAL;
	mapped = entry.stInfoFromApp.ubMap != 0;
	if (!create_velmora_mm_peer(0600))
		return -ENOMEM;
	thread = kthread_run(thread_work, NULL, "velmora_mm_peer");
	if (IS_ERR(thread)) {
		remove_proc_entry("velmora_mm_peer", NULL);
		return PTR_ERR(thread);
	}
	test_timer_prepare(timer);
	mod_timer(&timer, jiffies + 1);
	return 0;
}

static void __exit peer_exit(void)
{
	remove_proc_entry("velmora_mm_peer", NULL);
	WRITE_ONCE(stopping, true);
	test_timer_stop(timer);
	kthread_stop(thread);
}

MODULE_LICENSE("");
module_init(peer_init);
module_exit(peer_exit);
