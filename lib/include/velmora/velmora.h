/*
 * velmora.h - the client library for C: the safe layer of <velmora/segment.hpp> and <velmora/usage.hpp>, with opaque handles
 * and codes. C89 and later, C++, 32-bit and 64-bit programs. Link with -lvelmora.
 *
 * A call that can fail returns a code: 0 done; 1 to 23 the manager's (MM_EASSERT is 14); from 100 on this library's
 * (enum velmora_code); below 0 the kernel's, -EINVAL for example. What it was to give is then as it was before.
 * velmora_last_error() has the sentence.
 *
 * Handles are made by a call and ended by another; NULL may be ended. A segment keeps its device open, a block and a mapping
 * what they need, so the order in which they are ended is free. Ending a block releases it.
 *
 * Threads: a device and a segment may be used by any number of threads, a block and a mapping by one at a time; what ends a
 * handle is for the last one that uses it. A child of a fork opens its own device and holds no blocks.
 *
 * Numbers: addresses are kernel virtual addresses, 32 bits in every program; sizes are bytes; an unsigned int has 32 bits.
 */
#ifndef VELMORA_VELMORA_H
#define VELMORA_VELMORA_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* This library's own codes. */
enum velmora_code {
    VELMORA_OK = 0,                 /* done */
    VELMORA_NO_ROOM = 100,          /* neither the segment nor what it overflows into has room */
    VELMORA_NO_SUCH_SEGMENT = 101,  /* no segment of that name, or it went with a start of the library */
    VELMORA_SEGMENT_DIFFERS = 102,  /* there is one of that name, and it is not as it was asked for */
    VELMORA_BAD_NAME = 103,         /* a name has one to four characters */
    VELMORA_BAD_SIZE = 104,         /* 0, or more than addresses can hold */
    VELMORA_BAD_BLOCK_SIZE = 105,   /* no power of two, or below 16 (a stack: 4) */
    VELMORA_BAD_OWNER = 106,        /* does not go with the segment's owner map */
    VELMORA_BAD_RANGE = 107,        /* past the end of the block */
    VELMORA_STACK_IS_LOCKED = 108,  /* one wrong release would hold its lock for ever */
    VELMORA_STACK_OVERFLOWS = 109,  /* what it took from the heap cannot be released through it */
    VELMORA_NOT_TOP_OF_STACK = 110, /* later blocks come first */
    VELMORA_NOT_HELD = 111,         /* this process does not hold the block */
    VELMORA_NOT_KNOWN = 112,        /* nothing that a process can read tells */
    VELMORA_ALREADY_STARTED = 113,  /* there are segments; a start would take them from everybody */
    VELMORA_HEAP_UNSAFE = 114       /* the heap would not lie in free memory only */
};

/* Where a segment lies. */
enum velmora_place {
    VELMORA_FIXED = 0, /* where the table of fixed segments says */
    VELMORA_FLOAT = 1, /* in free memory */
    VELMORA_HEAP = 2   /* all that is left */
};

/* How a segment gives memory. */
enum velmora_discipline {
    VELMORA_STACK = 0, /* last in, first out */
    VELMORA_BLOCKS = 1 /* any block at any time */
};

/* How a mapping goes through the processor's cache. */
enum velmora_caching {
    VELMORA_CACHED = 0,  /* fast; whoever starts a DMA flushes or invalidates */
    VELMORA_UNCACHED = 1 /* slow; a device sees the same bytes */
};

/* Handle of the heap in records and infos. */
#define VELMORA_HEAP_HANDLE 49u

/* An open device. */
typedef struct velmora_device velmora_device;
/* A segment. */
typedef struct velmora_segment velmora_segment;
/* Memory that this process holds. */
typedef struct velmora_block velmora_block;
/* A view of it. */
typedef struct velmora_mapping velmora_mapping;

/* What a segment should be. Begin with VELMORA_SEGMENT_OPTIONS, so that fields which later versions add have their defaults:
 *     velmora_segment_options options = VELMORA_SEGMENT_OPTIONS;
 *     options.name = "PAGE"; */
typedef struct velmora_segment_options {
    size_t struct_bytes;            /* sizeof(velmora_segment_options), by which the library knows the version */
    const char* name;               /* one to four characters */
    unsigned int bytes;             /* usable, at least; 0 for VELMORA_FIXED and VELMORA_HEAP */
    unsigned int block_bytes;       /* a power of two, from 16 on (a stack: 4) */
    unsigned int owner_bits;        /* owner map: 0 (none), 1, 2, 4 or 8 bits for each block */
    unsigned int place;             /* enum velmora_place */
    unsigned int discipline;        /* enum velmora_discipline */
    unsigned int manager_overflows; /* for programs on the raw commands: the manager overflows into the heap */
} velmora_segment_options;

/* Defaults of a velmora_segment_options: a float segment of blocks of 4096 bytes. */
#define VELMORA_SEGMENT_OPTIONS                                                           \
    {                                                                                     \
        sizeof(velmora_segment_options), "", 0, 4096, 0, VELMORA_FLOAT, VELMORA_BLOCKS, 0 \
    }

/* A segment as the manager's table has it at one moment. */
typedef struct velmora_segment_info {
    char name[5];                   /* terminated */
    unsigned int handle;            /* 0 to 48 */
    unsigned int place;             /* enum velmora_place */
    unsigned int discipline;        /* enum velmora_discipline */
    unsigned int block_bytes;       /* as it was created */
    unsigned int block_stride;      /* from one block to the next */
    unsigned int owner_bits;        /* 0: no owner map */
    unsigned int locked;            /* 1: runs under a lock */
    unsigned int manager_overflows; /* 1: what does not fit is taken from the heap */
    unsigned int start;             /* first byte of its blocks */
    unsigned int end;               /* past their last */
    unsigned int blocks;            /* all */
    unsigned int free_blocks;       /* of them */
    unsigned int longest_run;       /* of free blocks that follow each other */
    int usable;                     /* 0, or the code with which velmora_segment_find() refuses it */
} velmora_segment_info;

/* Names a block for another process. 20 bytes in every program. */
typedef struct velmora_block_record {
    unsigned int segment; /* handle */
    unsigned int address; /* kernel virtual */
    unsigned int bytes;   /* that were asked for */
    unsigned int owner;   /* ID */
    char name[4];         /* of the segment, not terminated */
} velmora_block_record;

/* What an owner has in a segment. */
typedef struct velmora_owner_usage {
    unsigned int owner;  /* ID; 0: allocated for nobody */
    unsigned int blocks; /* of the segment's */
} velmora_owner_usage;

/* Free blocks that follow each other. */
typedef struct velmora_free_run {
    unsigned int start;  /* address of the first */
    unsigned int blocks; /* how many */
} velmora_free_run;

/* How cut up a segment's free memory is. */
typedef struct velmora_fragmentation_info {
    unsigned int free_bytes;    /* in whole blocks */
    unsigned int longest_bytes; /* the most that one allocation can get */
    double ratio;               /* 0: in one piece; towards 1: in many small ones */
} velmora_fragmentation_info;

/* Version of the library that runs, "0.9.0". */
const char* velmora_version(void);
/* What a code means, in words; valid until this thread's next call. */
const char* velmora_strerror(int code);
/* Name of a code: "EASSERT", "NoRoom", "EINVAL"; valid until this thread's next call. */
const char* velmora_code_name(int code);
/* The sentence of this thread's last call that failed; "" before there is one. */
const char* velmora_last_error(void);

/* Opens the device: a node by its path, or "unix:SOCKET"; NULL: $VELMORA_MM_DEVICE, else /dev/Velmora_MM. */
int velmora_open(const char* where, velmora_device** device);
/* Ends the handle. */
void velmora_close(velmora_device* device);
/* Runs a command of the wire header on a record; what ioctl gives, negative kernel codes included. The raw layer: the
 * manager's traps are the caller's. */
int velmora_command(velmora_device* device, unsigned int number, void* record, size_t bytes);
/* Lays out the fixed segments and starts the library: for the one process that starts the controller. option: how the
 * memory survived, 0 (MM_SM_BKUP_OK) to 3. With segments there it refuses unless forget_everything is 1. */
int velmora_start_up(velmora_device* device, unsigned int option, int forget_everything);

/* The segment of that name. */
int velmora_segment_find(velmora_device* device, const char* name, velmora_segment** segment);
/* Creates one. */
int velmora_segment_create(velmora_device* device, const velmora_segment_options* options, velmora_segment** segment);
/* The segment of that name if it is as described, created where there is none. Not for the heap. */
int velmora_segment_open_or_create(velmora_device* device, const velmora_segment_options* options,
                                   velmora_segment** segment);
/* The heap, which somebody else created with these: no command shows them, so they are believed. */
int velmora_segment_heap(velmora_device* device, unsigned int block_bytes, unsigned int owner_bits,
                         velmora_segment** segment);
/* Ends the handle; the segment and its blocks stay. */
void velmora_segment_close(velmora_segment* segment);
/* What velmora_segments() would say of it; VELMORA_NOT_KNOWN for the heap. */
int velmora_segment_get_info(velmora_segment* segment, velmora_segment_info* info);
/* From now on what has no room in the segment comes from the heap, with all its bytes, for owner where the heap has a map.
 * One thread alone. */
int velmora_segment_overflow_into(velmora_segment* segment, const velmora_segment* heap, unsigned int owner);
/* Releases all blocks of an owner and of every owner whose ID has all of its bits, whichever process allocated them. */
int velmora_collect(velmora_segment* segment, unsigned int owner);
/* IDs of which none contains another, for a map of so many bits: writes up to room of them, returns how many there are. */
size_t velmora_owner_ids(unsigned int bits, unsigned int* ids, size_t room);

/* Bytes for an owner (0 without a map); VELMORA_NO_ROOM when there is none. */
int velmora_allocate(velmora_segment* segment, unsigned int bytes, unsigned int owner, velmora_block** block);
/* Takes over a block that was detached. */
int velmora_adopt(velmora_segment* segment, const velmora_block_record* record, velmora_block** block);
/* Address, bytes and owner, for printing. */
void velmora_block_get_record(const velmora_block* block, velmora_block_record* record);
/* 1 while this process holds it. */
int velmora_block_held(const velmora_block* block);
/* Has the kernel fill it. */
int velmora_block_fill(const velmora_block* block, unsigned int byte);
/* What a DMA engine takes. */
int velmora_block_physical_address(const velmora_block* block, unsigned int* address);
/* Gives the memory back. The handle stays, and is ended by velmora_block_close(). */
int velmora_block_release(velmora_block* block);
/* Stops holding it without releasing; the handle stays. */
int velmora_block_detach(velmora_block* block, velmora_block_record* record);
/* Ends the handle, and releases the block if it is held. */
void velmora_block_close(velmora_block* block);

/* A view of bytes of a block, from offset on. caching: enum velmora_caching. */
int velmora_map(const velmora_block* block, unsigned int offset, unsigned int bytes, unsigned int caching,
                velmora_mapping** mapping);
/* Its first byte. */
void* velmora_mapping_data(const velmora_mapping* mapping);
/* Its bytes. */
size_t velmora_mapping_size(const velmora_mapping* mapping);
/* Ends the view. */
void velmora_unmap(velmora_mapping* mapping);

/* Lists write up to room elements and put into count how many there are. */

/* Every segment but the heap. */
int velmora_segments(velmora_device* device, velmora_segment_info* infos, size_t room, size_t* count);
/* Blocks of each owner ID; VELMORA_NOT_KNOWN without an owner map. */
int velmora_owners(velmora_segment* segment, velmora_owner_usage* usages, size_t room, size_t* count);
/* Free runs by address; VELMORA_NOT_KNOWN where no owner map tells. */
int velmora_free_runs(velmora_segment* segment, velmora_free_run* runs, size_t room, size_t* count);
/* VELMORA_NOT_KNOWN for the heap. */
int velmora_fragmentation(velmora_segment* segment, velmora_fragmentation_info* info);

#ifdef __cplusplus
}
#endif

#endif
