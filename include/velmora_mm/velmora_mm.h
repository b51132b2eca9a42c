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
 */
#ifndef VELMORA_MM_H
#define VELMORA_MM_H

/* Scalar types: the number is the width in bits. */
typedef __UINT8_TYPE__ U8;
typedef __UINT16_TYPE__ U16;
typedef __UINT32_TYPE__ U32;
typedef __INT32_TYPE__ S32;
typedef int BOOL;
typedef U32 TAddr; /* a kernel virtual address */

#define VELMORA_MM_DEVICE_NAME "Velmora_MM"
#define VELMORA_MM_PROC_NAME "velmora_mm"
#define VELMORA_MM_DEVICE_NODE "/dev/Velmora_MM"

/* Result of most operations; through ioctl these arrive as positive results. */
enum {
    ENOERR = 0,
    EINVAOPT = 1,
    EOUTOFRANGE = 2,
    EWRONGADDR = 3,
    EINVASEGSIZE = 4,
    EOUTOFFIXED = 5,
    EOUTOFFLOAT = 6,
    EINVASEGTYPE = 7,
    ENOSEGLIST = 8,
    ENOMCT = 9,
    EERR = 10,
    ENOSEGBLOCK = 11,
    ENOSEGBLK = 12,
    ENOSIZE = 13,
    EASSERT = 14, /* a check failed; the kernel log says which */
    EINITSEM = 15,
    EFREESEM = 16,
    EPSEM = 17,
    EVSEM = 18,
    EOPEN = 19,
    ECLOSE = 20,
    ENULL = 21,
    ESEGMENT = 22,
    EINVAARG = 23
};

/* How the memory survived the last power cycle. Held in 32 bits; 4 and 5 are refused at library start. */
enum {
    SM_BKUP_OK = 0,    /* contents kept: nothing is cleared */
    SM_BKUP_NG = 1,    /* backup failed: "$UEV" is cleared */
    SM_AJL_CLR = 2,    /* job data to be dropped: "$JCB" is cleared */
    SM_BKUP_FLASH = 3, /* contents restored from flash: nothing is cleared */
    SM_FM_MBR_OK = 4,
    SM_FM_MBR_NG = 5
};
typedef U32 TStartOption;

enum { MM_CONSTRUCT_DEFAULT_MCT = 0 }; /* the only initialisation option */
typedef U32 TMMInitOption;

enum {
    MAX_SEGTABLE_SIZE = 50,
    MAX_FIXEDSEG_NUM = 5,       /* fixed segments: handles 0 to 4 */
    FIRST_FLOAT_HANDLE = 5,     /* float segments: handles 5 to 48 */
    HEAPHANDLE = 49,            /* the heap */
    HEAPHANDLE_ALIAS = 0x10031, /* the heap again, where the allocation calls and most queries are asked */
    MAX_PIECE_NUM = 5,          /* most pieces that the heap may span */
    HEAP_BLOCK_SIZE = 64,       /* smallest linked-list segment; size of one free-memory node */
    MAX_MCT_NUM = 5,            /* rows of the memory configuration table */
    MM_DISPLAY_ALL = 100        /* selector of MM_CMD_DISPLAY_MST: every used entry and the heap */
};

enum { FIXED = 0, FLOAT = 1, FLOATALIGN = 2 }; /* ubType */
enum { STACK = 0, LINKEDLIST = 1 };            /* ubSegDSType */
enum { NO = 0, YES = 1 };                      /* ubSemaphore */

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
    MM_CMD_COLLECT_GARBAGE = 0x5309, /* TCollectGarbageInfo: release all blocks of an owner */
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
    U8 aubSegID[4];   /* name, not terminated */
    U8 ubType;        /* FIXED, FLOAT, FLOATALIGN */
    U8 ubSegDSType;   /* STACK, LINKEDLIST */
    U8 ubMap;         /* owner map: 0 (none), 1, 2, 4 or 8 bits for each block; a STACK has none */
    U8 ubSemaphore;   /* YES: every operation runs under a lock */
    U32 ulSegSize;    /* bytes asked for; 0 with FLOAT asks for the heap; out: bytes placed */
    U32 ulBlkSize;    /* bytes of a block, above 0; acts as the power of two at or below it */
    U32 hulHandle;    /* out: handle of the new segment */
    U32 ulRetSegSize; /* out: usable bytes */
    U8 ubVM;          /* non-zero: what does not fit is taken from the heap */
    U8 aubPad[3];
} TSegInfoFromApp;

/* A segment table entry as MM_CMD_GET_MST copies it. */
typedef struct {
    TSegInfoFromApp stInfoFromApp;
    U8 ubBlkBit; /* log2 of the block size, rounded down */
    U8 aubPad[3];
    TAddr pubStartAddr;      /* first block */
    TAddr pubEndAddr;        /* past the last block */
    TAddr pubMapStartAddr;   /* owner map, 0 when there is none */
    TAddr pubMapEndAddr;     /* past the owner map */
    U32 ulSemID;             /* not used */
    U32 ulTotalBlkNum;       /* blocks */
    U32 ulTotalAllocBlkNum;  /* blocks */
    U32 ulTotalFreeBlkNum;   /* blocks */
    U32 ulLargestBlkSize;    /* longest free run, blocks */
    U32 ulRealAvailSize;     /* usable bytes */
    TAddr pfnAlloc, pfnFree; /* non-zero once the segment serves allocations */
} TMMSegInfoWire;

/* A row of the memory configuration table as MM_CMD_GET_MCT copies it. */
typedef struct {
    U8 aubCFGID[4]; /* name, not terminated */
    U32 ulSize;     /* bytes */
    TAddr pubStartAddr;
} TMCTInfoWire;

typedef struct {
    TStartOption enStartOption;
    S32 status; /* out */
} TLibEntryInfo;

typedef struct {
    U32 hulHandle;
    U32 ulReqBytes;
    U8 ubMapID; /* owner; must fit the segment's map */
    U8 aubPad[3];
    TAddr pubStart; /* out: 0 no room, 0xFFFFFFFF refused */
} TMallocInfo;

typedef struct {
    U32 hulHandle;
    TAddr pubRlsAddr;
    U32 ulBytesNo;
} TFreeInfo;

typedef struct {
    TAddr s;
    S32 c; /* the low byte is stored */
    U32 n; /* bytes */
} TMemsetInfo;

typedef struct {
    U8 aubCFGID[4];
    U8 status; /* never written */
} TDeleteSegmentInfo;

typedef struct {
    U8 aubCFGID[4];
    U32 ulSize;
    TAddr pubAddr;
    U8 status;
    U8 aubPad[3];
} TAddSegmentInfo;

typedef TAddSegmentInfo TClearSegmentInfo;

typedef struct {
    U32 hulHandle;
    U8 ubMapID;
    U8 aubPad[3];
} TCollectGarbageInfo;

typedef struct {
    U32 hulHandle;
    U32 ulAddr;
    U8 status; /* out: 1 inside, 0 outside */
    U8 aubPad[3];
} TCheckSegmentInfo;

typedef struct {
    U32 hulHandle; /* the low byte selects: a handle, HEAPHANDLE, MM_DISPLAY_ALL */
    U8 status;     /* out: 0 */
    U8 aubPad[3];
} TDisplayMSTInfo;

typedef struct {
    U8 hubHandle; /* ignored */
    U8 aubPad[3];
    U32 ulStart;
    U32 ulPhysAddr; /* out: 14 when ulStart is 0 */
} TQueryPhysAddrInfo;

typedef struct {
    U8 hubHandle; /* 0 to 48 */
    U8 aubPad[3];
    TMMSegInfoWire SegTable; /* out */
    U8 status;               /* out: 0, or 255 for a bad index */
    U8 aubPad2[3];
} TGetMSTInfo;

typedef struct {
    U8 cfgid; /* 0 to 4 */
    U8 aubPad[3];
    TMCTInfoWire SegTable; /* out */
    U8 status;             /* out: 0, or 255 for a bad index */
    U8 aubPad2[3];
} TGetMCTInfo;

#ifdef __cplusplus
#define MM_LAYOUT(condition) static_assert(condition, #condition)
#else
#define MM_LAYOUT(condition) _Static_assert(condition, #condition)
#endif
#define MM_OFFSET(type, field, offset) MM_LAYOUT(__builtin_offsetof(type, field) == (offset))

MM_LAYOUT(sizeof(TSegInfoFromApp) == 28);
MM_OFFSET(TSegInfoFromApp, ubType, 4);
MM_OFFSET(TSegInfoFromApp, ubSegDSType, 5);
MM_OFFSET(TSegInfoFromApp, ubMap, 6);
MM_OFFSET(TSegInfoFromApp, ubSemaphore, 7);
MM_OFFSET(TSegInfoFromApp, ulSegSize, 8);
MM_OFFSET(TSegInfoFromApp, ulBlkSize, 12);
MM_OFFSET(TSegInfoFromApp, hulHandle, 16);
MM_OFFSET(TSegInfoFromApp, ulRetSegSize, 20);
MM_OFFSET(TSegInfoFromApp, ubVM, 24);

MM_LAYOUT(sizeof(TMMSegInfoWire) == 80);
MM_OFFSET(TMMSegInfoWire, ubBlkBit, 28);
MM_OFFSET(TMMSegInfoWire, pubStartAddr, 32);
MM_OFFSET(TMMSegInfoWire, pubEndAddr, 36);
MM_OFFSET(TMMSegInfoWire, pubMapStartAddr, 40);
MM_OFFSET(TMMSegInfoWire, pubMapEndAddr, 44);
MM_OFFSET(TMMSegInfoWire, ulSemID, 48);
MM_OFFSET(TMMSegInfoWire, ulTotalBlkNum, 52);
MM_OFFSET(TMMSegInfoWire, ulTotalAllocBlkNum, 56);
MM_OFFSET(TMMSegInfoWire, ulTotalFreeBlkNum, 60);
MM_OFFSET(TMMSegInfoWire, ulLargestBlkSize, 64);
MM_OFFSET(TMMSegInfoWire, ulRealAvailSize, 68);
MM_OFFSET(TMMSegInfoWire, pfnAlloc, 72);
MM_OFFSET(TMMSegInfoWire, pfnFree, 76);

MM_LAYOUT(sizeof(TMCTInfoWire) == 12);
MM_OFFSET(TMCTInfoWire, ulSize, 4);
MM_OFFSET(TMCTInfoWire, pubStartAddr, 8);

MM_LAYOUT(sizeof(TLibEntryInfo) == 8);
MM_OFFSET(TLibEntryInfo, status, 4);
MM_LAYOUT(sizeof(TMallocInfo) == 16);
MM_OFFSET(TMallocInfo, ulReqBytes, 4);
MM_OFFSET(TMallocInfo, ubMapID, 8);
MM_OFFSET(TMallocInfo, pubStart, 12);
MM_LAYOUT(sizeof(TFreeInfo) == 12);
MM_OFFSET(TFreeInfo, pubRlsAddr, 4);
MM_OFFSET(TFreeInfo, ulBytesNo, 8);
MM_LAYOUT(sizeof(TMemsetInfo) == 12);
MM_OFFSET(TMemsetInfo, c, 4);
MM_OFFSET(TMemsetInfo, n, 8);
MM_LAYOUT(sizeof(TDeleteSegmentInfo) == 5);
MM_OFFSET(TDeleteSegmentInfo, status, 4);
MM_LAYOUT(sizeof(TAddSegmentInfo) == 16);
MM_OFFSET(TAddSegmentInfo, ulSize, 4);
MM_OFFSET(TAddSegmentInfo, pubAddr, 8);
MM_OFFSET(TAddSegmentInfo, status, 12);
MM_LAYOUT(sizeof(TMMInitOption) == 4);
MM_LAYOUT(sizeof(TCollectGarbageInfo) == 8);
MM_OFFSET(TCollectGarbageInfo, ubMapID, 4);
MM_LAYOUT(sizeof(TCheckSegmentInfo) == 12);
MM_OFFSET(TCheckSegmentInfo, ulAddr, 4);
MM_OFFSET(TCheckSegmentInfo, status, 8);
MM_LAYOUT(sizeof(TDisplayMSTInfo) == 8);
MM_OFFSET(TDisplayMSTInfo, status, 4);
MM_LAYOUT(sizeof(TQueryPhysAddrInfo) == 12);
MM_OFFSET(TQueryPhysAddrInfo, ulStart, 4);
MM_OFFSET(TQueryPhysAddrInfo, ulPhysAddr, 8);
MM_LAYOUT(sizeof(TGetMSTInfo) == 88);
MM_OFFSET(TGetMSTInfo, SegTable, 4);
MM_OFFSET(TGetMSTInfo, status, 84);
MM_LAYOUT(sizeof(TGetMCTInfo) == 20);
MM_OFFSET(TGetMCTInfo, SegTable, 4);
MM_OFFSET(TGetMCTInfo, status, 16);

#endif
