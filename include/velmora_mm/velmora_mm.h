/*
 * velmora_mm.h - what crosses the control device "Velmora_MM": command numbers, records, codes.
 *
 * The only file that both sides of the device include. It needs no other header, compiles as C and
 * as C++, in the kernel and in 32-bit and 64-bit programs.
 *
 * Records are little-endian with natural alignment; padding bytes travel as the caller gave them.
 * Every address in a record is a kernel virtual address of the managed area, held as a 32-bit
 * integer (TAddr) whatever the word size of the program: pass it to mmap() of the device as the offset
 * to reach the bytes, or ask MM_CMD_QUERY_PHYS_ADDR for the physical address.
 *
 * Names. Every type and constant has a name that begins with MM_: MM_U32, MM_TFreeInfo, MM_YES,
 * MM_CMD_FREE. Those without it in the text below, as U32, TFreeInfo and YES, exist as well, unless the
 * program defines VELMORA_MM_PREFIXED_NAMES before it includes this header:
 *
 *     #define VELMORA_MM_PREFIXED_NAMES
 *     #include <velmora_mm/velmora_mm.h>
 *
 * A program with a BOOL, FIXED or YES of its own (X11 has one) defines it. A header that others
 * include uses the prefixed names only: they are there either way, and are the same types.
 */
#ifndef VELMORA_MM_H
#define VELMORA_MM_H

/* A name as it is declared below, with the prefix and, where the program may have it, without. */
#ifdef VELMORA_MM_PREFIXED_NAMES
#define MM_TYPE(name) MM_##name
#define MM_CONSTANT(name, value) MM_##name = (value)
#else
#define MM_TYPE(name) MM_##name, name
/* NOLINTNEXTLINE(bugprone-macro-parentheses): an enumerator does not stand in any. */
#define MM_CONSTANT(name, value) MM_##name = (value), name = (value)
#endif

/* Scalar types: the number is the width in bits. */
typedef __UINT8_TYPE__ MM_TYPE(U8);   /* 8 bits */
typedef __UINT16_TYPE__ MM_TYPE(U16); /* 16 bits */
typedef __UINT32_TYPE__ MM_TYPE(U32); /* 32 bits */
typedef __INT32_TYPE__ MM_TYPE(S32);  /* 32 bits, signed */
typedef int MM_TYPE(BOOL);            /* 0 or 1 */
typedef MM_U32 MM_TYPE(TAddr);        /* a kernel virtual address */

/* Name of the character device. */
#define VELMORA_MM_DEVICE_NAME "Velmora_MM"
/* Name of the proc file. */
#define VELMORA_MM_PROC_NAME "velmora_mm"
/* Where programs look for the device. */
#define VELMORA_MM_DEVICE_NODE "/dev/Velmora_MM"

/* Result of most operations; through ioctl these arrive as positive results. */
enum {
    MM_CONSTANT(ENOERR, 0),       /* done */
    MM_CONSTANT(EINVAOPT, 1),     /* invalid option */
    MM_CONSTANT(EOUTOFRANGE, 2),  /* outside managed memory */
    MM_CONSTANT(EWRONGADDR, 3),   /* the table of fixed segments has no address */
    MM_CONSTANT(EINVASEGSIZE, 4), /* no room */
    MM_CONSTANT(EOUTOFFIXED, 5),  /* no fixed segment left */
    MM_CONSTANT(EOUTOFFLOAT, 6),  /* no float segment left */
    MM_CONSTANT(EINVASEGTYPE, 7), /* invalid segment type */
    MM_CONSTANT(ENOSEGLIST, 8),   /* no list of segments */
    MM_CONSTANT(ENOMCT, 9),       /* no table of fixed segments */
    MM_CONSTANT(EERR, 10),        /* the table of fixed segments has no such row */
    MM_CONSTANT(ENOSEGBLOCK, 11), /* no segment block */
    MM_CONSTANT(ENOSEGBLK, 12),   /* no segment block */
    MM_CONSTANT(ENOSIZE, 13),     /* no size */
    MM_CONSTANT(EASSERT, 14),     /* a check failed; the kernel log says which */
    MM_CONSTANT(EINITSEM, 15),    /* semaphore not initialised */
    MM_CONSTANT(EFREESEM, 16),    /* semaphore not freed */
    MM_CONSTANT(EPSEM, 17),       /* semaphore not taken */
    MM_CONSTANT(EVSEM, 18),       /* semaphore not given back */
    MM_CONSTANT(EOPEN, 19),       /* not opened */
    MM_CONSTANT(ECLOSE, 20),      /* not closed */
    MM_CONSTANT(ENULL, 21),       /* null */
    MM_CONSTANT(ESEGMENT, 22),    /* wrong segment */
    MM_CONSTANT(EINVAARG, 23)     /* invalid argument */
};

/* How the memory survived the last power cycle. Held in 32 bits; 4 and 5 are refused at library start. */
enum {
    MM_CONSTANT(SM_BKUP_OK, 0),    /* contents kept: nothing is cleared */
    MM_CONSTANT(SM_BKUP_NG, 1),    /* backup failed: "$UEV" is cleared */
    MM_CONSTANT(SM_AJL_CLR, 2),    /* job data to be dropped: "$JCB" is cleared */
    MM_CONSTANT(SM_BKUP_FLASH, 3), /* contents restored from flash: nothing is cleared */
    MM_CONSTANT(SM_FM_MBR_OK, 4),
    MM_CONSTANT(SM_FM_MBR_NG, 5)
};
typedef MM_U32 MM_TYPE(TStartOption); /* one of the above */

enum { MM_CONSTRUCT_DEFAULT_MCT = 0 }; /* the only initialisation option */
typedef MM_U32 MM_TYPE(TMMInitOption); /* the one above */

enum {
    MM_CONSTANT(MAX_SEGTABLE_SIZE, 50),
    MM_CONSTANT(MAX_FIXEDSEG_NUM, 5),       /* fixed segments: handles 0 to 4 */
    MM_CONSTANT(FIRST_FLOAT_HANDLE, 5),     /* float segments: handles 5 to 48 */
    MM_CONSTANT(HEAPHANDLE, 49),            /* the heap */
    MM_CONSTANT(HEAPHANDLE_ALIAS, 0x10031), /* the heap again, where the allocation calls and most queries are asked */
    MM_CONSTANT(MAX_PIECE_NUM, 5),          /* most pieces that the heap may span */
    MM_CONSTANT(HEAP_BLOCK_SIZE, 64),       /* smallest linked-list segment; size of one free-memory node */
    MM_CONSTANT(MAX_MCT_NUM, 5),            /* rows of the memory configuration table */
    MM_DISPLAY_ALL = 100                    /* selector of MM_CMD_DISPLAY_MST: every used entry and the heap */
};

enum { MM_CONSTANT(FIXED, 0), MM_CONSTANT(FLOAT, 1), MM_CONSTANT(FLOATALIGN, 2) }; /* ubType */
enum { MM_CONSTANT(STACK, 0), MM_CONSTANT(LINKEDLIST, 1) };                        /* ubSegDSType */
enum { MM_CONSTANT(NO, 0), MM_CONSTANT(YES, 1) };                                  /* ubSemaphore */

/* Control commands: type byte 0x53, sequence number, no direction or size bits. */
enum {
    MM_CMD_LIB_ENTRY = 0x5300,       /* TLibEntryInfo: start the library afresh */
    MM_CMD_CREATE_SEGMENT = 0x5301,  /* TSegInfoFromApp: create a segment */
    MM_CMD_MALLOC = 0x5302,          /* TMallocInfo: allocate; 4 when there is no room */
    MM_CMD_FREE = 0x5303,            /* TFreeInfo: release */
    MM_CMD_MEMSET = 0x5304,          /* TMemsetInfo: fill memory; the address is trusted */
    MM_CMD_DELETE_SEGMENT = 0x5305,  /* TDeleteSegmentInfo: empty an MCT row; always 0 */
    MM_CMD_ADD_SEGMENT = 0x5306,     /* TAddSegmentInfo: accepted, does nothing */
    MM_CMD_CLEAR_SEGMENT = 0x5307,   /* TClearSegmentInfo: zero a fixed segment; always 0 */
    MM_CMD_ENTRY = 0x5308,           /* TMMInitOption, 4 bytes: build the MCT */
    MM_CMD_COLLECT_GARBAGE = 0x5309, /* TCollectGarbageInfo: release the blocks of an owner, see there */
    MM_CMD_CHECK_SEGMENT = 0x530A,   /* TCheckSegmentInfo: is an address in a segment */
    MM_CMD_DISPLAY_MST = 0x530B,     /* TDisplayMSTInfo: print the segment table on the kernel log */
    MM_CMD_QUERY_PHYS_ADDR = 0x530C, /* TQueryPhysAddrInfo: physical address */
    MM_CMD_GET_MST = 0x530D,         /* TGetMSTInfo: copy of a segment's entry, handles 0 to 48 */
    MM_CMD_GET_MCT = 0x530E,         /* TGetMCTInfo: copy of a default MCT row */
    MM_CMD_FIRST = MM_CMD_LIB_ENTRY,
    MM_CMD_COUNT = 15
};

/* A segment request, and the first member of every segment table entry. */
typedef struct {
    MM_U8 aubSegID[4];   /* name, not terminated */
    MM_U8 ubType;        /* FIXED, FLOAT, FLOATALIGN */
    MM_U8 ubSegDSType;   /* STACK, LINKEDLIST */
    MM_U8 ubMap;         /* owner map: 0 (none), 1, 2, 4 or 8 bits for each block; a STACK has none */
    MM_U8 ubSemaphore;   /* YES: each allocation and release runs under a lock */
    MM_U32 ulSegSize;    /* bytes asked for; 0 with FLOAT asks for the heap; out: bytes placed */
    MM_U32 ulBlkSize;    /* bytes of a block, above 0; acts as the power of two at or below it */
    MM_U32 hulHandle;    /* out: handle of the new segment */
    MM_U32 ulRetSegSize; /* out: usable bytes */
    MM_U8 ubVM;          /* non-zero: what does not fit is taken from the heap */
    MM_U8 aubPad[3];     /* padding */
} MM_TYPE(TSegInfoFromApp);

/* A segment table entry as MM_CMD_GET_MST copies it. */
typedef struct {
    MM_TSegInfoFromApp stInfoFromApp; /* as the request was accepted */
    MM_U8 ubBlkBit;                   /* log2 of the block size, rounded down */
    MM_U8 aubPad[3];                  /* padding */
    MM_TAddr pubStartAddr;            /* first block */
    MM_TAddr pubEndAddr;              /* past the last block */
    MM_TAddr pubMapStartAddr;         /* owner map, 0 when there is none */
    MM_TAddr pubMapEndAddr;           /* past the owner map */
    MM_U32 ulSemID;                   /* not used */
    MM_U32 ulTotalBlkNum;             /* blocks */
    MM_U32 ulTotalAllocBlkNum;        /* blocks */
    MM_U32 ulTotalFreeBlkNum;         /* blocks */
    MM_U32 ulLargestBlkSize;          /* longest free run, blocks */
    MM_U32 ulRealAvailSize;           /* usable bytes */
    MM_TAddr pfnAlloc;                /* non-zero once the segment serves allocations */
    MM_TAddr pfnFree;                 /* the same */
} MM_TYPE(TMMSegInfoWire);

/* A row of the memory configuration table as MM_CMD_GET_MCT copies it. */
typedef struct {
    MM_U8 aubCFGID[4];     /* name, not terminated */
    MM_U32 ulSize;         /* bytes */
    MM_TAddr pubStartAddr; /* 0 until it is placed */
} MM_TYPE(TMCTInfoWire);

/* Record of MM_CMD_LIB_ENTRY. */
typedef struct {
    MM_TStartOption enStartOption; /* how the memory survived */
    MM_S32 status;                 /* out */
} MM_TYPE(TLibEntryInfo);

/* Record of MM_CMD_MALLOC. */
typedef struct {
    MM_U32 hulHandle;  /* of the segment */
    MM_U32 ulReqBytes; /* rounded up to whole blocks */
    MM_U8 ubMapID;     /* owner; must fit the segment's map */
    MM_U8 aubPad[3];   /* padding */
    MM_TAddr pubStart; /* out: 0 no room, 0xFFFFFFFF refused */
} MM_TYPE(TMallocInfo);

/* Record of MM_CMD_FREE. */
typedef struct {
    MM_U32 hulHandle;    /* of the segment */
    MM_TAddr pubRlsAddr; /* as it was allocated */
    MM_U32 ulBytesNo;    /* as they were asked for */
} MM_TYPE(TFreeInfo);

/* Record of MM_CMD_MEMSET. */
typedef struct {
    MM_TAddr s; /* from here on */
    MM_S32 c;   /* the low byte is stored */
    MM_U32 n;   /* bytes */
} MM_TYPE(TMemsetInfo);

/* Record of MM_CMD_DELETE_SEGMENT. */
typedef struct {
    MM_U8 aubCFGID[4]; /* name of the row */
    MM_U8 status;      /* never written */
} MM_TYPE(TDeleteSegmentInfo);

/* Record of MM_CMD_ADD_SEGMENT and MM_CMD_CLEAR_SEGMENT. */
typedef struct {
    MM_U8 aubCFGID[4]; /* name of the row */
    MM_U32 ulSize;     /* bytes */
    MM_TAddr pubAddr;  /* where the segment would lie */
    MM_U8 status;      /* never written */
    MM_U8 aubPad[3];   /* padding */
} MM_TYPE(TAddSegmentInfo);

typedef MM_TAddSegmentInfo MM_TYPE(TClearSegmentInfo); /* the same record */

/* A block goes when its entry in the owner map has all bits of the ID, whatever other bits it has: an owner's own blocks
 * and those of every owner whose ID contains it. 1 also takes the blocks of 3, 5 and 0x81. */
typedef struct {
    MM_U32 hulHandle; /* of the segment */
    MM_U8 ubMapID;    /* owner */
    MM_U8 aubPad[3];  /* padding */
} MM_TYPE(TCollectGarbageInfo);

/* Record of MM_CMD_CHECK_SEGMENT. */
typedef struct {
    MM_U32 hulHandle; /* of the segment */
    MM_U32 ulAddr;    /* the address in question */
    MM_U8 status;     /* out: 1 inside, 0 outside */
    MM_U8 aubPad[3];  /* padding */
} MM_TYPE(TCheckSegmentInfo);

/* Record of MM_CMD_DISPLAY_MST. */
typedef struct {
    MM_U32 hulHandle; /* the low byte selects: a handle, HEAPHANDLE, MM_DISPLAY_ALL */
    MM_U8 status;     /* out: 0 */
    MM_U8 aubPad[3];  /* padding */
} MM_TYPE(TDisplayMSTInfo);

/* Record of MM_CMD_QUERY_PHYS_ADDR. */
typedef struct {
    MM_U8 hubHandle;   /* ignored */
    MM_U8 aubPad[3];   /* padding */
    MM_U32 ulStart;    /* a kernel virtual address */
    MM_U32 ulPhysAddr; /* out: 14 when ulStart is 0 */
} MM_TYPE(TQueryPhysAddrInfo);

/* Record of MM_CMD_GET_MST. */
typedef struct {
    MM_U8 hubHandle;            /* 0 to 48 */
    MM_U8 aubPad[3];            /* padding */
    MM_TMMSegInfoWire SegTable; /* out */
    MM_U8 status;               /* out: 0, or 255 for a bad index */
    MM_U8 aubPad2[3];           /* padding */
} MM_TYPE(TGetMSTInfo);

/* Record of MM_CMD_GET_MCT. */
typedef struct {
    MM_U8 cfgid;              /* 0 to 4 */
    MM_U8 aubPad[3];          /* padding */
    MM_TMCTInfoWire SegTable; /* out */
    MM_U8 status;             /* out: 0, or 255 for a bad index */
    MM_U8 aubPad2[3];         /* padding */
} MM_TYPE(TGetMCTInfo);

#ifdef __cplusplus
#define MM_LAYOUT(condition) static_assert(condition, #condition)
#else
#define MM_LAYOUT(condition) _Static_assert(condition, #condition)
#endif
#define MM_OFFSET(type, field, offset) MM_LAYOUT(__builtin_offsetof(type, field) == (offset))

MM_LAYOUT(sizeof(MM_TSegInfoFromApp) == 28);
MM_OFFSET(MM_TSegInfoFromApp, ubType, 4);
MM_OFFSET(MM_TSegInfoFromApp, ubSegDSType, 5);
MM_OFFSET(MM_TSegInfoFromApp, ubMap, 6);
MM_OFFSET(MM_TSegInfoFromApp, ubSemaphore, 7);
MM_OFFSET(MM_TSegInfoFromApp, ulSegSize, 8);
MM_OFFSET(MM_TSegInfoFromApp, ulBlkSize, 12);
MM_OFFSET(MM_TSegInfoFromApp, hulHandle, 16);
MM_OFFSET(MM_TSegInfoFromApp, ulRetSegSize, 20);
MM_OFFSET(MM_TSegInfoFromApp, ubVM, 24);

MM_LAYOUT(sizeof(MM_TMMSegInfoWire) == 80);
MM_OFFSET(MM_TMMSegInfoWire, ubBlkBit, 28);
MM_OFFSET(MM_TMMSegInfoWire, pubStartAddr, 32);
MM_OFFSET(MM_TMMSegInfoWire, pubEndAddr, 36);
MM_OFFSET(MM_TMMSegInfoWire, pubMapStartAddr, 40);
MM_OFFSET(MM_TMMSegInfoWire, pubMapEndAddr, 44);
MM_OFFSET(MM_TMMSegInfoWire, ulSemID, 48);
MM_OFFSET(MM_TMMSegInfoWire, ulTotalBlkNum, 52);
MM_OFFSET(MM_TMMSegInfoWire, ulTotalAllocBlkNum, 56);
MM_OFFSET(MM_TMMSegInfoWire, ulTotalFreeBlkNum, 60);
MM_OFFSET(MM_TMMSegInfoWire, ulLargestBlkSize, 64);
MM_OFFSET(MM_TMMSegInfoWire, ulRealAvailSize, 68);
MM_OFFSET(MM_TMMSegInfoWire, pfnAlloc, 72);
MM_OFFSET(MM_TMMSegInfoWire, pfnFree, 76);

MM_LAYOUT(sizeof(MM_TMCTInfoWire) == 12);
MM_OFFSET(MM_TMCTInfoWire, ulSize, 4);
MM_OFFSET(MM_TMCTInfoWire, pubStartAddr, 8);

MM_LAYOUT(sizeof(MM_TLibEntryInfo) == 8);
MM_OFFSET(MM_TLibEntryInfo, status, 4);
MM_LAYOUT(sizeof(MM_TMallocInfo) == 16);
MM_OFFSET(MM_TMallocInfo, ulReqBytes, 4);
MM_OFFSET(MM_TMallocInfo, ubMapID, 8);
MM_OFFSET(MM_TMallocInfo, pubStart, 12);
MM_LAYOUT(sizeof(MM_TFreeInfo) == 12);
MM_OFFSET(MM_TFreeInfo, pubRlsAddr, 4);
MM_OFFSET(MM_TFreeInfo, ulBytesNo, 8);
MM_LAYOUT(sizeof(MM_TMemsetInfo) == 12);
MM_OFFSET(MM_TMemsetInfo, c, 4);
MM_OFFSET(MM_TMemsetInfo, n, 8);
MM_LAYOUT(sizeof(MM_TDeleteSegmentInfo) == 5);
MM_OFFSET(MM_TDeleteSegmentInfo, status, 4);
MM_LAYOUT(sizeof(MM_TAddSegmentInfo) == 16);
MM_OFFSET(MM_TAddSegmentInfo, ulSize, 4);
MM_OFFSET(MM_TAddSegmentInfo, pubAddr, 8);
MM_OFFSET(MM_TAddSegmentInfo, status, 12);
MM_LAYOUT(sizeof(MM_TMMInitOption) == 4);
MM_LAYOUT(sizeof(MM_TCollectGarbageInfo) == 8);
MM_OFFSET(MM_TCollectGarbageInfo, ubMapID, 4);
MM_LAYOUT(sizeof(MM_TCheckSegmentInfo) == 12);
MM_OFFSET(MM_TCheckSegmentInfo, ulAddr, 4);
MM_OFFSET(MM_TCheckSegmentInfo, status, 8);
MM_LAYOUT(sizeof(MM_TDisplayMSTInfo) == 8);
MM_OFFSET(MM_TDisplayMSTInfo, status, 4);
MM_LAYOUT(sizeof(MM_TQueryPhysAddrInfo) == 12);
MM_OFFSET(MM_TQueryPhysAddrInfo, ulStart, 4);
MM_OFFSET(MM_TQueryPhysAddrInfo, ulPhysAddr, 8);
MM_LAYOUT(sizeof(MM_TGetMSTInfo) == 88);
MM_OFFSET(MM_TGetMSTInfo, SegTable, 4);
MM_OFFSET(MM_TGetMSTInfo, status, 84);
MM_LAYOUT(sizeof(MM_TGetMCTInfo) == 20);
MM_OFFSET(MM_TGetMCTInfo, SegTable, 4);
MM_OFFSET(MM_TGetMCTInfo, status, 16);

#undef MM_TYPE
#undef MM_CONSTANT

#endif
