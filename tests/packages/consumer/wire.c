/* A program that knows the device and the wire header, and nothing else. Without the device it says so and ends with 2.
     wire              makes a block, and finds in a second view what it wrote through the first
     wire leave TEXT   leaves a text in a block, prints the block's address, waits for a line, and prints what is there then
     wire take ADDRESS TEXT   prints the text at an address and leaves another one there */
#define _FILE_OFFSET_BITS 64
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>

#include <velmora_mm/velmora_mm.h>

static int refused(const char* what, int result)
{
    fprintf(stderr, "wire: %s: %d\n", what, result);
    return 1;
}

static int makeBlock(int device, TMallocInfo* block)
{
    TMMInitOption table = 0;
    TLibEntryInfo start = {SM_BKUP_OK, 0};
    TSegInfoFromApp segment;
    int result;

    memset(&segment, 0, sizeof segment);
    memcpy(segment.aubSegID, "WIRE", sizeof segment.aubSegID);
    segment.ubType = FLOAT;
    segment.ubSegDSType = LINKEDLIST;
    segment.ubMap = 8;
    segment.ubSemaphore = YES;
    segment.ulSegSize = 1 << 20;
    segment.ulBlkSize = 4096;
    if ((result = ioctl(device, MM_CMD_ENTRY, &table)) != 0)
        return refused("table", result);
    if ((result = ioctl(device, MM_CMD_LIB_ENTRY, &start)) != 0)
        return refused("start", result);
    if ((result = ioctl(device, MM_CMD_CREATE_SEGMENT, &segment)) != 0)
        return refused("segment", result);
    block->hulHandle = segment.hulHandle;
    block->ulReqBytes = 8192;
    block->ubMapID = 1;
    if ((result = ioctl(device, MM_CMD_MALLOC, block)) != 0)
        return refused("block", result);
    return 0;
}

static unsigned char* view(int device, const TMallocInfo* block)
{
    return mmap(NULL, block->ulReqBytes, PROT_READ | PROT_WRITE, MAP_SHARED, device, (off_t)block->pubStart);
}

static int compareViews(int device)
{
    TMallocInfo block = {0, 0, 0, {0}, 0};
    unsigned char *one, *other;

    if (makeBlock(device, &block) != 0)
        return 1;
    one = view(device, &block);
    other = view(device, &block);
    if (one == MAP_FAILED || other == MAP_FAILED)
        return refused("mapping", -1);
    memset(one, 0x5A, block.ulReqBytes);
    if (memcmp(one, other, block.ulReqBytes) != 0)
        return refused("comparison", 0);
    printf("wire: %u-bit, %u bytes at %#x\n", (unsigned)(8 * sizeof(void*)), (unsigned)block.ulReqBytes,
           (unsigned)block.pubStart);
    return 0;
}

static int leave(int device, const char* text)
{
    TMallocInfo block = {0, 0, 0, {0}, 0};
    char* there;

    if (makeBlock(device, &block) != 0)
        return 1;
    there = (char*)view(device, &block);
    if (there == MAP_FAILED)
        return refused("mapping", -1);
    strcpy(there, text);
    printf("%#x\n", (unsigned)block.pubStart);
    fflush(stdout);
    getchar();
    puts(there);
    return 0;
}

static int take(int device, const char* address, const char* text)
{
    TMallocInfo block = {0, 8192, 0, {0}, 0};
    char* there;

    block.pubStart = (TAddr)strtoul(address, NULL, 16);
    there = (char*)view(device, &block);
    if (there == MAP_FAILED)
        return refused("mapping", -1);
    puts(there);
    strcpy(there, text);
    return 0;
}

int main(int count, char** arguments)
{
    const int device = open(VELMORA_MM_DEVICE_NODE, O_RDWR);

    if (device < 0) {
        perror(VELMORA_MM_DEVICE_NODE);
        return 2;
    }
    if (count == 3 && strcmp(arguments[1], "leave") == 0)
        return leave(device, arguments[2]);
    if (count == 4 && strcmp(arguments[1], "take") == 0)
        return take(device, arguments[2], arguments[3]);
    return compareViews(device);
}
