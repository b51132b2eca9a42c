/*
 * A plain C program as there are in the field: the node, the wire header, the C library. Its first argument chooses what it
 * tries; it ends with 0 when all of that was as on the product. Built for 32 and for 64 bits.
 */
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <velmora_mm/velmora_mm.h>

#include "check.h"

enum { PAGE = 4096, BLOCK = 4096 };

static const char* self;

static int open_device(void)
{
    int device;

    CHECK((device = open(VELMORA_MM_DEVICE_NODE, O_RDWR)) >= 0);
    return device;
}

static void start_library(int device)
{
    TMMInitOption option = MM_CONSTRUCT_DEFAULT_MCT;
    TLibEntryInfo entry = {SM_BKUP_OK, -1};

    CHECK(ioctl(device, MM_CMD_ENTRY, &option) == 0);
    CHECK(ioctl(device, MM_CMD_LIB_ENTRY, &entry) == 0);
    CHECK(entry.status == 0);
}

static U32 create_segment(int device, const char* name, U32 bytes)
{
    TSegInfoFromApp segment = {.ubType = FLOAT, .ubSegDSType = LINKEDLIST, .ubMap = 8, .ubSemaphore = YES};

    memcpy(segment.aubSegID, name, 4);
    segment.ulSegSize = bytes;
    segment.ulBlkSize = BLOCK;
    CHECK(ioctl(device, MM_CMD_CREATE_SEGMENT, &segment) == 0);
    return segment.hulHandle;
}

static TAddr allocate(int device, U32 segment, U32 bytes, U8 owner)
{
    TMallocInfo request = {segment, bytes, owner, {0}, 0};

    CHECK(ioctl(device, MM_CMD_MALLOC, &request) == 0);
    return request.pubStart;
}

static U32 started_with_segment(int device)
{
    start_library(device);
    return create_segment(device, "TEST", 64 * BLOCK);
}

static void* map_at(int device, TAddr address, size_t bytes)
{
    void* view = mmap64(NULL, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, device, address);

    CHECK(view != MAP_FAILED);
    return view;
}

/* The manager's codes are results, whatever their number; an unknown command succeeds. */
static void answers(void)
{
    int device = open_device();
    U32 segment = started_with_segment(device);
    TMallocInfo large = {segment, 65 * BLOCK, 1, {0}, 1};
    TMallocInfo nobody = {segment, BLOCK, 0, {0}, 0};
    TGetMSTInfo entry = {.hubHandle = (U8)segment};
    TAddr block = allocate(device, segment, 3 * BLOCK, 1);
    TFreeInfo release = {segment, block, 3 * BLOCK};

    CHECK(block > 0x95100000 && block < 0x9DF00000);
    CHECK(ioctl(device, MM_CMD_MALLOC, &large) == EINVASEGSIZE && large.pubStart == 0);
    CHECK(ioctl(device, MM_CMD_MALLOC, &nobody) > 0);
    CHECK(ioctl(device, MM_CMD_GET_MST, &entry) == 0 && entry.status == 0);
    CHECK(memcmp(entry.SegTable.stInfoFromApp.aubSegID, "TEST", 4) == 0 && entry.SegTable.ulTotalAllocBlkNum == 3);
    CHECK(ioctl(device, MM_CMD_FREE, &release) == 0);
    CHECK(ioctl(device, MM_CMD_GET_MST, &entry) == 0 && entry.SegTable.ulTotalAllocBlkNum == 0);
    CHECK(ioctl(device, 0x530F, &entry) == 0);
    CHECK(ioctl(device, TCGETS, &entry) == 0);
    CHECK(close(device) == 0);
    FAILS(ioctl(device, MM_CMD_FREE, &release), EBADF);
}

static const size_t record_bytes[MM_CMD_COUNT] = {
    sizeof(TLibEntryInfo),      sizeof(TSegInfoFromApp),     sizeof(TMallocInfo),       sizeof(TFreeInfo),
    sizeof(TMemsetInfo),        sizeof(TDeleteSegmentInfo),  sizeof(TAddSegmentInfo),   sizeof(TClearSegmentInfo),
    sizeof(TMMInitOption),      sizeof(TCollectGarbageInfo), sizeof(TCheckSegmentInfo), sizeof(TDisplayMSTInfo),
    sizeof(TQueryPhysAddrInfo), sizeof(TGetMSTInfo),         sizeof(TGetMCTInfo),
};

/* A record that ends where memory ends is one; with a byte less there, the command fails, whichever it is. */
static void partly_readable(int device, char* end)
{
    U32 i;

    for (i = 0; i < MM_CMD_COUNT; ++i) {
        memset(end - PAGE, 0, PAGE);
        FAILS(ioctl(device, MM_CMD_FIRST + i, end - record_bytes[i] + 1), EFAULT);
        memset(end - PAGE, 0, PAGE);
        CHECK(ioctl(device, MM_CMD_FIRST + i, end - record_bytes[i]) != -1);
    }
}

static void faults(void)
{
    int device = open_device();
    U32 segment = started_with_segment(device);
    char* memory = mmap(NULL, 3 * PAGE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    TMallocInfo* request = (TMallocInfo*)(memory + PAGE);
    TMallocInfo* across = (TMallocInfo*)(memory + PAGE - 8);
    TGetMSTInfo entry = {.hubHandle = (U8)segment};

    FAILS(ioctl(device, MM_CMD_MALLOC, NULL), EFAULT);
    FAILS(ioctl(device, MM_CMD_MALLOC, (void*)-1), EINVAL);
    FAILS(ioctl(device, MM_CMD_MALLOC, (void*)-4096), EINVAL);
    FAILS(ioctl(device, MM_CMD_MALLOC, (void*)0x95400000), EINVAL);
    CHECK(ioctl(device, 0x530F, NULL) == 0);

    /* The command is done, the answer does not come back. */
    *request = (TMallocInfo){segment, BLOCK, 1, {0}, 0};
    CHECK(mprotect(memory + PAGE, PAGE, PROT_READ) == 0);
    FAILS(ioctl(device, MM_CMD_MALLOC, request), EFAULT);
    CHECK(request->pubStart == 0);
    CHECK(ioctl(device, MM_CMD_GET_MST, &entry) == 0 && entry.SegTable.ulTotalAllocBlkNum == 1);
    /* Half of the record can be written; the last field is in the other half. */
    CHECK(mprotect(memory + PAGE, PAGE, PROT_READ | PROT_WRITE) == 0);
    *across = (TMallocInfo){segment, BLOCK, 1, {0}, 0};
    CHECK(mprotect(memory + PAGE, PAGE, PROT_READ) == 0);
    FAILS(ioctl(device, MM_CMD_MALLOC, across), EFAULT);
    CHECK(ioctl(device, MM_CMD_GET_MST, &entry) == 0 && entry.SegTable.ulTotalAllocBlkNum == 2);
    /* What is only read may be read-only. */
    CHECK(mprotect(memory + PAGE, PAGE, PROT_READ | PROT_WRITE) == 0);
    *(TCollectGarbageInfo*)request = (TCollectGarbageInfo){segment, 1, {0}};
    CHECK(mprotect(memory + PAGE, PAGE, PROT_READ) == 0);
    CHECK(ioctl(device, MM_CMD_COLLECT_GARBAGE, request) == 0);
    CHECK(mprotect(memory + PAGE, PAGE, PROT_NONE) == 0);
    FAILS(ioctl(device, MM_CMD_MALLOC, request), EFAULT);
    partly_readable(device, memory + PAGE);
}

static void transfers(void)
{
    char buffer[8];
    struct iovec part = {buffer, sizeof buffer};
    int device = open_device(), reader = open(VELMORA_MM_DEVICE_NODE, O_RDONLY);
    int writer = open(VELMORA_MM_DEVICE_NODE, O_WRONLY);
    volatile size_t bytes = sizeof buffer; /* unknown to the compiler: the checked calls */

    FAILS(read(device, buffer, bytes), ENOSYS);
    FAILS(read(device, buffer, 0), ENOSYS);
    FAILS(write(device, buffer, sizeof buffer), ENOSYS);
    FAILS(readv(device, &part, 1), ENOSYS);
    FAILS(writev(device, &part, 1), ENOSYS);
    FAILS(pread(device, buffer, bytes, 0), ENOSYS);
    FAILS(pread64(device, buffer, bytes, 4), ENOSYS);
    FAILS(pwrite(device, buffer, sizeof buffer, 0), ENOSYS);
    FAILS(lseek(device, 0, SEEK_SET), ESPIPE);
    FAILS(write(reader, buffer, 1), EBADF);
    FAILS(read(reader, buffer, bytes), ENOSYS);
    FAILS(read(writer, buffer, bytes), EBADF);
    FAILS(write(writer, buffer, 1), ENOSYS);
}

static void mappings(void)
{
    int device = open_device(), reader = open(VELMORA_MM_DEVICE_NODE, O_RDONLY);
    int writer = open(VELMORA_MM_DEVICE_NODE, O_WRONLY), uncached = open(VELMORA_MM_DEVICE_NODE, O_RDWR | O_SYNC);
    TAddr block = allocate(device, started_with_segment(device), 2 * BLOCK, 1);
    TMemsetInfo fill = {block + BLOCK, 0x1A5, 3};
    char *one = map_at(device, block, 2 * BLOCK), *two = map_at(uncached, block + BLOCK, 1), *view;
    off_t offset = (off_t)block; /* below zero where it has 32 bits */

    strcpy(one + BLOCK, "the same bytes");
    CHECK(strcmp(two, "the same bytes") == 0);
    CHECK(ioctl(device, MM_CMD_MEMSET, &fill) == 0);
    CHECK(memcmp(two, "\xA5\xA5\xA5 same", 8) == 0);
    CHECK((view = mmap(NULL, BLOCK, PROT_READ | PROT_WRITE, MAP_SHARED, device, offset)) != MAP_FAILED);
    strcpy(view, "low");
    CHECK(strcmp(one, "low") == 0);
    CHECK(mmap(view, BLOCK, PROT_READ, MAP_SHARED | MAP_FIXED, device, offset + BLOCK) == view);
    CHECK(memcmp(view, "\xA5\xA5\xA5 same", 8) == 0);
    CHECK((view = mmap(NULL, BLOCK, PROT_READ | PROT_WRITE, MAP_PRIVATE, device, offset)) != MAP_FAILED);
    strcpy(view, "own");
    CHECK(strcmp(one, "low") == 0);
    CHECK((view = mmap(NULL, BLOCK, PROT_READ, MAP_SHARED, reader, offset)) != MAP_FAILED);
    CHECK(strcmp(view, "low") == 0);
    FAILS(mprotect(view, BLOCK, PROT_READ | PROT_WRITE), EACCES);

    CHECK(mmap(NULL, BLOCK, PROT_READ | PROT_WRITE, MAP_SHARED, reader, offset) == MAP_FAILED && errno == EACCES);
    CHECK(mmap(NULL, BLOCK, PROT_WRITE, MAP_SHARED, writer, offset) == MAP_FAILED && errno == EACCES);
    CHECK(mmap(NULL, 0, PROT_READ, MAP_SHARED, device, offset) == MAP_FAILED && errno == EINVAL);
    CHECK(mmap(NULL, BLOCK, PROT_READ, MAP_SHARED, device, offset + 4) == MAP_FAILED && errno == EINVAL);
    CHECK(mmap(NULL, BLOCK, PROT_READ, 0, device, offset) == MAP_FAILED && errno == EINVAL);
    CHECK(mmap(NULL, BLOCK, PROT_READ, MAP_SHARED, device, 0) == MAP_FAILED && errno == EIO);
    CHECK(mmap64(NULL, BLOCK, PROT_READ, MAP_SHARED, device, 0xA4000000) == MAP_FAILED && errno == EIO);
#if UINTPTR_MAX > 0xFFFFFFFF /* past the 32-bit physical space */
    CHECK(mmap(NULL, 0xF0002000, PROT_READ, MAP_SHARED, device, 0xA3FFF000) == MAP_FAILED && errno == EINVAL);
    CHECK(mmap(NULL, 0x100000000, PROT_READ, MAP_SHARED, device, offset) == MAP_FAILED && errno == ENOMEM);
    CHECK(mmap(NULL, BLOCK, PROT_READ, MAP_SHARED, device, 1L << 44) == MAP_FAILED && errno == EINVAL);
#endif

    close(device);
    strcpy(one, "a mapping outlives its descriptor");
    CHECK(munmap(one, 2 * BLOCK) == 0);
}

static void refused_mappings(void)
{
    int device = open_device();
    U32 segment = started_with_segment(device);
    TAddr block = allocate(device, segment, BLOCK, 1);

    CHECK(mmap64(NULL, BLOCK, PROT_READ, MAP_SHARED, device, block) == MAP_FAILED && errno == EAGAIN);
}

/* Programs that the C library protects call another function when the flags are no constant. */
static void ways_to_open(void)
{
    volatile int flags = O_RDWR | O_CLOEXEC;
    int folder = open("/dev", O_RDONLY | O_DIRECTORY), device, lowest = dup(0);
    TMMInitOption option = MM_CONSTRUCT_DEFAULT_MCT;

    close(lowest);
    CHECK((device = open(VELMORA_MM_DEVICE_NODE, flags)) == lowest);
    CHECK((fcntl(device, F_GETFL) & (O_ACCMODE | O_SYNC | O_NONBLOCK)) == O_RDWR &&
          fcntl(device, F_GETFD) == FD_CLOEXEC);
    CHECK(ioctl(device, MM_CMD_ENTRY, &option) == 0);
    CHECK((device = open64(VELMORA_MM_DEVICE_NODE, O_RDONLY | O_SYNC)) >= 0);
    CHECK((fcntl(device, F_GETFL) & (O_ACCMODE | O_SYNC)) == (O_RDONLY | O_SYNC) && fcntl(device, F_GETFD) == 0);
    CHECK(ioctl(device, MM_CMD_ENTRY, &option) == 0);
    CHECK((device = openat(folder, VELMORA_MM_DEVICE_NAME, flags)) >= 0);
    CHECK(ioctl(device, MM_CMD_ENTRY, &option) == 0);
    CHECK((device = openat64(AT_FDCWD, "/dev/../dev//./" VELMORA_MM_DEVICE_NAME, O_WRONLY | O_NONBLOCK)) >= 0);
    CHECK((fcntl(device, F_GETFL) & (O_ACCMODE | O_NONBLOCK)) == (O_WRONLY | O_NONBLOCK));
    CHECK(ioctl(device, MM_CMD_ENTRY, &option) == 0);
    CHECK((device = creat(VELMORA_MM_DEVICE_NODE, 0600)) >= 0);
    CHECK(ioctl(device, MM_CMD_ENTRY, &option) == 0);
    CHECK(chdir("/dev") == 0 && (device = open(VELMORA_MM_DEVICE_NAME, O_RDWR | O_CREAT, 0600)) >= 0);
    CHECK(ioctl(device, MM_CMD_ENTRY, &option) == 0);
    FAILS(open(VELMORA_MM_DEVICE_NODE, O_RDWR | O_CREAT | O_EXCL, 0600), EEXIST);
    FAILS(open(VELMORA_MM_DEVICE_NODE, O_RDONLY | O_DIRECTORY), ENOTDIR);
}

static void streams(void)
{
    TMMInitOption option = MM_CONSTRUCT_DEFAULT_MCT;
    char buffer[16];
    FILE *stream = fopen(VELMORA_MM_DEVICE_NODE, "r+"), *other;
    int device;

    CHECK(stream != NULL && (device = fileno(stream)) >= 0);
    CHECK(ioctl(device, MM_CMD_ENTRY, &option) == 0);
    CHECK(fread(buffer, 1, sizeof buffer, stream) == 0 && ferror(stream) && errno == ENOSYS);
    CHECK((other = fdopen(dup(device), "w")) != NULL);
    CHECK(fputs("text", other) >= 0 && fflush(other) == EOF && errno == ENOSYS);
    CHECK(ioctl(device, MM_CMD_ENTRY, &option) == 0);
    CHECK(fclose(stream) == 0);
    FAILS(fcntl(device, F_GETFD), EBADF);
    CHECK((stream = fopen64(VELMORA_MM_DEVICE_NODE, "re")) != NULL && fcntl(fileno(stream), F_GETFD) == FD_CLOEXEC);
    CHECK(fopen(VELMORA_MM_DEVICE_NODE, "q") == NULL && errno == EINVAL);
}

/* The stream stays the program's own, and its number the device's. */
static void reopened_streams(void)
{
    TMMInitOption option = MM_CONSTRUCT_DEFAULT_MCT;
    FILE *stream, *other;
    int device;
    char buffer[16];

    CHECK((stream = fopen("/dev/zero", "r")) != NULL && (device = fileno(stream)) >= 0);
    CHECK(freopen(VELMORA_MM_DEVICE_NODE, "r+", stream) == stream && fileno(stream) == device);
    CHECK(ioctl(device, MM_CMD_ENTRY, &option) == 0);
    CHECK(fread(buffer, 1, sizeof buffer, stream) == 0 && ferror(stream));
    clearerr(stream);
    CHECK((fputs("text", stream) == EOF || fflush(stream) == EOF) && ferror(stream));
    CHECK(ioctl(device, MM_CMD_ENTRY, &option) == 0);
    /* Once more the same, and something else. */
    CHECK(freopen64(NULL, "re", stream) == stream && fcntl(fileno(stream), F_GETFD) == FD_CLOEXEC);
    CHECK(ioctl(fileno(stream), MM_CMD_ENTRY, &option) == 0);
    CHECK(freopen("/dev/zero", "r", stream) == stream && fread(buffer, 1, sizeof buffer, stream) == sizeof buffer);
    FAILS(ioctl(fileno(stream), MM_CMD_ENTRY, &option), ENOTTY);
    CHECK(fclose(stream) == 0);
    CHECK((other = fopen(VELMORA_MM_DEVICE_NODE, "r")) != NULL && freopen("/dev/zero", "r", other) == other);
    CHECK(fread(buffer, 1, sizeof buffer, other) == sizeof buffer && fclose(other) == 0);
    CHECK((other = fopen("/dev/zero", "r")) != NULL);
    CHECK(freopen(VELMORA_MM_DEVICE_NODE, "q", other) == NULL && errno == EINVAL);
    CHECK((other = fopen("/dev/zero", "r")) != NULL && (device = fileno(other)) >= 0);
    CHECK(freopen(VELMORA_MM_DEVICE_NODE, "wx", other) == NULL && errno == EEXIST);
    FAILS(fcntl(device, F_GETFD), EBADF);
}

static void links(void)
{
    char folder[] = "/tmp/velmora-preload-XXXXXX";
    TMMInitOption option = MM_CONSTRUCT_DEFAULT_MCT;
    struct stat status;
    struct statx extended;
    int device;
    FILE* stream;

    CHECK(mkdtemp(folder) != NULL && chdir(folder) == 0);
    CHECK(symlink(VELMORA_MM_DEVICE_NODE, "memory") == 0 && symlink("memory", "second") == 0);
    CHECK(mkdir("inner", 0700) == 0 && symlink("../second", "inner/third") == 0 && symlink("none", "nowhere") == 0);
    CHECK((device = open("memory", O_RDWR)) >= 0 && ioctl(device, MM_CMD_ENTRY, &option) == 0);
    CHECK((device = open("inner/third", O_RDWR | O_CREAT, 0600)) >= 0 && ioctl(device, MM_CMD_ENTRY, &option) == 0);
    CHECK((stream = fopen("second", "w")) != NULL && ioctl(fileno(stream), MM_CMD_ENTRY, &option) == 0);
    CHECK((stream = fopen("second", "r")) != NULL && ioctl(fileno(stream), MM_CMD_ENTRY, &option) == 0);
    CHECK(freopen("inner/third", "r", stream) == stream && ioctl(fileno(stream), MM_CMD_ENTRY, &option) == 0);
    CHECK(stat("inner/third", &status) == 0 && S_ISCHR(status.st_mode));
    CHECK(fstatat(AT_FDCWD, "memory", &status, 0) == 0 && S_ISCHR(status.st_mode));
    CHECK(statx(AT_FDCWD, "memory", 0, STATX_ALL, &extended) == 0 && S_ISCHR(extended.stx_mode));
    CHECK(access("inner/third", R_OK | W_OK) == 0);
    CHECK(faccessat(AT_FDCWD, "memory", R_OK, 0) == 0);
    /* The link itself is a link. */
    CHECK(lstat("memory", &status) == 0 && S_ISLNK(status.st_mode));
    CHECK(fstatat(AT_FDCWD, "memory", &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode));
    FAILS(open("memory", O_RDWR | O_NOFOLLOW), ELOOP);
    FAILS(open("memory", O_RDWR | O_CREAT | O_EXCL, 0600), EEXIST);
    FAILS(open("nowhere", O_RDWR), ENOENT);
    FAILS(stat("nowhere", &status), ENOENT);
    CHECK((device = open("nowhere", O_RDWR | O_CREAT, 0600)) >= 0 && fstat(device, &status) == 0 &&
          S_ISREG(status.st_mode));
    CHECK(unlink("inner/third") == 0 && rmdir("inner") == 0 && unlink("second") == 0 && unlink("memory") == 0);
    CHECK(unlink("none") == 0 && unlink("nowhere") == 0 && rmdir(folder) == 0);
}

/* Paths that are not there, or end where memory ends. */
static void paths(void)
{
    char* memory = mmap(NULL, 2 * PAGE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    const char* const bad[] = {NULL, (char*)3, (char*)8, (char*)-4096, memory + PAGE, memory + PAGE - 3};
    char* end = memory + PAGE - sizeof VELMORA_MM_DEVICE_NODE;
    struct stat status;
    struct statx extended;
    size_t i;

    CHECK(mprotect(memory + PAGE, PAGE, PROT_NONE) == 0);
    memset(memory, 'x', PAGE);
    for (i = 0; i < sizeof bad / sizeof bad[0]; ++i) {
        FAILS(open(bad[i], O_RDWR), EFAULT);
        FAILS(openat(AT_FDCWD, bad[i], O_RDWR | O_CREAT, 0600), EFAULT);
        CHECK(fopen(bad[i], "r") == NULL && errno == EFAULT);
        FAILS(stat(bad[i], &status), EFAULT);
        FAILS(lstat(bad[i], &status), EFAULT);
        FAILS(statx(AT_FDCWD, bad[i], 0, STATX_ALL, &extended), EFAULT);
        FAILS(access(bad[i], R_OK), EFAULT);
    }
    FAILS(open(memory, O_RDONLY), ENAMETOOLONG);
    memcpy(end, VELMORA_MM_DEVICE_NODE, sizeof VELMORA_MM_DEVICE_NODE);
    CHECK(open(end, O_RDWR) >= 0);
}

/* What else is done with a mapping is done as with a device's. */
static void mapped_memory(void)
{
    int device = open_device(), file;
    TAddr block = allocate(device, started_with_segment(device), 4 * BLOCK, 1);
    char *view = map_at(device, block, 2 * BLOCK),
         *own = mmap(NULL, PAGE, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0), *moved;
    char* private_view = mmap64(NULL, BLOCK, PROT_READ, MAP_PRIVATE, device, block);

    FAILS(msync(view, BLOCK, MS_SYNC), EINVAL);
    FAILS(msync(view + BLOCK, BLOCK, MS_SYNC | MS_INVALIDATE), EINVAL);
    CHECK(msync(view, BLOCK, MS_ASYNC) == 0 && msync(view, 0, MS_SYNC) == 0);
    CHECK(private_view != MAP_FAILED && msync(private_view, BLOCK, MS_SYNC) == 0);
    FAILS(msync(view + 1, BLOCK, MS_SYNC), EINVAL);
    CHECK(msync(own, PAGE, MS_SYNC) == 0);
    FAILS(fsync(device), EINVAL);

    CHECK(mremap(view, 2 * BLOCK, 3 * BLOCK, MREMAP_MAYMOVE) == MAP_FAILED && errno == EFAULT);
    CHECK(mremap(view, BLOCK, 2 * BLOCK, 0) == MAP_FAILED && errno == EFAULT);
    strcpy(view, "moved");
    CHECK((moved = mremap(view, 2 * BLOCK, BLOCK, MREMAP_MAYMOVE)) != MAP_FAILED && strcmp(moved, "moved") == 0);
    CHECK(mremap(moved, BLOCK, BLOCK, MREMAP_MAYMOVE | MREMAP_FIXED, own) == own && strcmp(own, "moved") == 0);
    FAILS(msync(own, BLOCK, MS_SYNC), EINVAL);
    CHECK((file = open("/proc/self/exe", O_RDONLY)) >= 0);
    CHECK((moved = mmap(NULL, PAGE, PROT_READ, MAP_SHARED, file, 0)) != MAP_FAILED && msync(moved, PAGE, MS_SYNC) == 0);
    CHECK((moved = mremap(moved, PAGE, 2 * PAGE, MREMAP_MAYMOVE)) != MAP_FAILED);
}

static void status_of_node(void)
{
    int device = open_device(), copy = dup(device);
    struct stat status;
    struct stat64 status64;
    struct statx extended;

    CHECK(stat(VELMORA_MM_DEVICE_NODE, &status) == 0);
    CHECK(status.st_mode == (S_IFCHR | 0660) && major(status.st_rdev) != 0 && status.st_size == 0 &&
          status.st_nlink == 1);
    CHECK(fstat(copy, &status) == 0 && status.st_mode == (S_IFCHR | 0660));
    CHECK(lstat("/dev/./" VELMORA_MM_DEVICE_NAME, &status) == 0 && S_ISCHR(status.st_mode));
    CHECK(fstatat(device, "", &status, AT_EMPTY_PATH) == 0 && S_ISCHR(status.st_mode));
    CHECK(stat64(VELMORA_MM_DEVICE_NODE, &status64) == 0 && S_ISCHR(status64.st_mode));
    CHECK(fstat64(device, &status64) == 0 && S_ISCHR(status64.st_mode) && status64.st_rdev == makedev(254, 0));
    CHECK(statx(AT_FDCWD, VELMORA_MM_DEVICE_NODE, 0, STATX_ALL, &extended) == 0 && S_ISCHR(extended.stx_mode));
    CHECK(access(VELMORA_MM_DEVICE_NODE, R_OK | W_OK) == 0);
    FAILS(access(VELMORA_MM_DEVICE_NODE, X_OK), EACCES);
    CHECK(faccessat(AT_FDCWD, VELMORA_MM_DEVICE_NODE, F_OK, 0) == 0);
}

static void copies(void)
{
    TMMInitOption option = MM_CONSTRUCT_DEFAULT_MCT;
    int device = open_device(), one = dup(device), two = dup2(device, 100), three = dup3(device, 101, O_CLOEXEC);
    int four = fcntl(device, F_DUPFD, 102), five = fcntl(device, F_DUPFD_CLOEXEC, 102);
    int all[] = {one, two, three, four, five};
    size_t i;
    char buffer[4];

    CHECK(one >= 0 && two == 100 && three == 101 && four == 102 && five == 103);
    CHECK(fcntl(three, F_GETFD) == FD_CLOEXEC);
    CHECK(close(device) == 0);
    for (i = 0; i < sizeof all / sizeof all[0]; ++i) {
        CHECK(ioctl(all[i], MM_CMD_ENTRY, &option) == 0);
        FAILS(read(all[i], buffer, sizeof buffer), ENOSYS);
        CHECK(close(all[i]) == 0);
        FAILS(ioctl(all[i], MM_CMD_ENTRY, &option), EBADF);
    }
    /* What takes a number's place is what it is. */
    CHECK((device = open_device()) >= 0 && open("/dev/zero", O_RDONLY) == device + 1);
    CHECK(dup2(device + 1, device) == device && read(device, buffer, 4) == 4);
    FAILS(ioctl(device, MM_CMD_ENTRY, &option), ENOTTY);
}

/* Commands of parent and child at once, on one descriptor: each gets its own answers. */
static void work(int device, U32 segment, U8 owner, int rounds)
{
    TMallocInfo request;
    TCheckSegmentInfo inside;
    TFreeInfo release;
    int i;

    for (i = 0; i < rounds; ++i) {
        request = (TMallocInfo){segment, BLOCK * (U32)owner, owner, {0}, 0};
        CHECK(ioctl(device, MM_CMD_MALLOC, &request) == 0);
        CHECK(request.ubMapID == owner && request.ulReqBytes == BLOCK * (U32)owner && request.pubStart != 0);
        inside = (TCheckSegmentInfo){segment, request.pubStart, 0, {0}};
        CHECK(ioctl(device, MM_CMD_CHECK_SEGMENT, &inside) == 0 && inside.status == 1);
        release = (TFreeInfo){segment, request.pubStart, BLOCK * (U32)owner};
        CHECK(ioctl(device, MM_CMD_FREE, &release) == 0);
    }
}

static void wait_for(pid_t child)
{
    int status;

    CHECK(child > 0 && waitpid(child, &status, 0) == child);
    CHECK(status == 0);
}

static void forks(void)
{
    int device = open_device(), i;
    U32 segment = started_with_segment(device);
    TGetMSTInfo entry = {.hubHandle = (U8)segment};
    pid_t children[4];

    for (i = 0; i < 4; ++i)
        if ((children[i] = fork()) == 0) {
            work(device, segment, (U8)(2 + i), 300);
            _exit(0);
        }
    work(device, segment, 1, 300);
    for (i = 0; i < 4; ++i)
        wait_for(children[i]);
    CHECK(ioctl(device, MM_CMD_GET_MST, &entry) == 0 && entry.SegTable.ulTotalAllocBlkNum == 0);
}

/* A program that inherits a descriptor knows it; so does one that is started between vfork and exec. */
static void programs(void)
{
    int device = open_device(), closing = open(VELMORA_MM_DEVICE_NODE, O_RDWR | O_CLOEXEC);
    U32 segment = started_with_segment(device);
    char number[16], handle[16], closed[16];
    pid_t child;

    snprintf(number, sizeof number, "%d", device);
    snprintf(handle, sizeof handle, "%u", segment);
    snprintf(closed, sizeof closed, "%d", closing);
    if ((child = vfork()) == 0) {
        execl(self, self, "inherited", number, handle, closed, (char*)NULL);
        _exit(1);
    }
    work(device, segment, 1, 50);
    wait_for(child);
    work(device, segment, 1, 50);
}

static void inherited(char** arguments)
{
    int device = atoi(arguments[0]), closed = atoi(arguments[2]);
    char buffer[4];
    struct stat status;

    FAILS(read(device, buffer, sizeof buffer), ENOSYS);
    CHECK(fstat(device, &status) == 0 && S_ISCHR(status.st_mode));
    FAILS(fcntl(closed, F_GETFD), EBADF);
    work(device, (U32)atoi(arguments[1]), 2, 50);
}

static int threads_device;
static U32 threads_segment;

static void* thread(void* owner)
{
    work(threads_device, threads_segment, (U8)(uintptr_t)owner, 200);
    return NULL;
}

static void threads(void)
{
    pthread_t all[6];
    TGetMSTInfo entry = {0};
    uintptr_t i;

    threads_device = open_device();
    threads_segment = started_with_segment(threads_device);
    for (i = 0; i < 6; ++i)
        CHECK(pthread_create(&all[i], NULL, thread, (void*)(i + 1)) == 0);
    for (i = 0; i < 6; ++i)
        CHECK(pthread_join(all[i], NULL) == 0);
    entry.hubHandle = (U8)threads_segment;
    CHECK(ioctl(threads_device, MM_CMD_GET_MST, &entry) == 0 && entry.SegTable.ulTotalAllocBlkNum == 0);
}

static volatile sig_atomic_t alarms;

static void on_alarm(int number)
{
    int before = errno;

    (void)number;
    ++alarms;
    work(threads_device, threads_segment, 4, 1);
    errno = before;
}

/* A handler that uses the device while the program is in the middle of a command. */
static void signals(void)
{
    struct itimerval often = {{0, 500}, {0, 500}}, never = {{0, 0}, {0, 0}};
    struct sigaction action = {.sa_handler = on_alarm};
    int i;

    threads_device = open_device();
    threads_segment = started_with_segment(threads_device);
    CHECK(sigaction(SIGALRM, &action, NULL) == 0 && setitimer(ITIMER_REAL, &often, NULL) == 0);
    for (i = 0; i < 1000 && alarms < 100; ++i)
        work(threads_device, threads_segment, 1, 20);
    CHECK(setitimer(ITIMER_REAL, &never, NULL) == 0);
    CHECK(alarms >= 20);
}

/* As a daemon begins: every number is closed, and the device still works once it is opened. */
static void closes_everything(void)
{
    int device = open_device(), i;
    U32 segment = started_with_segment(device);

    for (i = 3; i < 4096; ++i)
        close(i);
    CHECK((device = open_device()) == 3);
    work(device, segment, 1, 3);
    for (i = 4; i < 1100; ++i) /* and something else is there */
        dup2(2, i);
    work(device, segment, 1, 3);
    CHECK(write(1000, "", 0) == 0);
}

/* A descriptor that comes in a message is one of the device as well. */
static void messages(void)
{
    int device = open_device(), ends[2], received;
    U32 segment = started_with_segment(device);
    TAddr block = allocate(device, segment, BLOCK, 1);
    char letter = 'x';
    union {
        struct cmsghdr header;
        char room[CMSG_SPACE(sizeof(int))];
    } control = {0};
    struct iovec part = {&letter, 1};
    struct msghdr message = {
        .msg_iov = &part, .msg_iovlen = 1, .msg_control = &control, .msg_controllen = sizeof control};

    CHECK(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
    control.header =
        (struct cmsghdr){.cmsg_level = SOL_SOCKET, .cmsg_type = SCM_RIGHTS, .cmsg_len = CMSG_LEN(sizeof(int))};
    memcpy(CMSG_DATA(&control.header), &device, sizeof device);
    CHECK(sendmsg(ends[0], &message, 0) == 1);
    CHECK(recvmsg(ends[1], &message, 0) == 1);
    memcpy(&received, CMSG_DATA(&control.header), sizeof received);
    CHECK(received != device && close(device) == 0);
    CHECK(mmap64(NULL, BLOCK, PROT_READ, MAP_SHARED, received, block) != MAP_FAILED);
    work(received, segment, 1, 1);
}

/* What is not the device is as it was, errno included. */
static void untouched(void)
{
    char path[] = "/tmp/velmora-preload-XXXXXX", name[PATH_MAX], text[8] = "";
    int file, ends[2];
    struct stat status;
    FILE* stream;

    CHECK(mkdtemp(path) != NULL);
    snprintf(name, sizeof name, "%s/" VELMORA_MM_DEVICE_NAME, path);
    FAILS(open(name, O_RDWR), ENOENT);
    CHECK((file = open(name, O_RDWR | O_CREAT, 0640)) >= 0 && write(file, "bytes", 5) == 5);
    CHECK(fstat(file, &status) == 0 && S_ISREG(status.st_mode) && (status.st_mode & 0777) == (0640 & ~umask(0)));
    CHECK(pread(file, text, 5, 0) == 5 && strcmp(text, "bytes") == 0);
    FAILS(ioctl(file, MM_CMD_ENTRY, text), ENOTTY);
    CHECK(mmap(NULL, 5, PROT_READ, MAP_SHARED, file, 0) != MAP_FAILED);
    CHECK((stream = fopen(name, "r")) != NULL && fread(text, 1, 5, stream) == 5 && fclose(stream) == 0);
    CHECK(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) == 0 && fstat(ends[0], &status) == 0 &&
          S_ISSOCK(status.st_mode));
    CHECK(mmap(NULL, 5, PROT_READ, MAP_SHARED, ends[0], 0) == MAP_FAILED && errno == ENODEV);
    CHECK(unlink(name) == 0 && rmdir(path) == 0);
    FAILS(open("/dev/Velmora_MM2", O_RDWR), ENOENT);
    FAILS(open("/dev/xVelmora_MM", O_RDWR), ENOENT);
    FAILS(stat("/proc/Velmora_MM", &status), ENOENT);
    FAILS(open(NULL, O_RDWR), EFAULT);
    errno = EDOM;
    CHECK(close(file) == 0);
    FAILS(close(-1), EBADF);
    FAILS(read(-1, text, 1), EBADF);
}

/* For other programs' tests ------------------------------------------------------------------------- */

/* Writes a text into a block and prints where; the library is started before. */
static void share(char** arguments)
{
    int device = open_device();
    TAddr block = allocate(device, started_with_segment(device), BLOCK, 1);

    strcpy(map_at(device, block, BLOCK), arguments[0]);
    printf("0x%x\n", block);
}

/* Prints the text at an address and writes another one there. */
static void take(char** arguments)
{
    char* view = map_at(open_device(), (TAddr)strtoul(arguments[0], NULL, 16), BLOCK);

    puts(view);
    strcpy(view, arguments[1]);
}

/* Touches memory that does not exist: the controller stands still, and says so to nobody's harm. */
static void stops(void)
{
    int device = open_device();
    TMemsetInfo fill = {0xA4000000, 0, 1};
    TMMInitOption option = MM_CONSTRUCT_DEFAULT_MCT;

    FAILS(ioctl(device, MM_CMD_MEMSET, &fill), ENODEV);
    FAILS(ioctl(device, MM_CMD_ENTRY, &option), ENODEV);
    CHECK(mmap64(NULL, BLOCK, PROT_READ, MAP_SHARED, device, 0x95400000) == MAP_FAILED && errno == ENODEV);
    FAILS(open(VELMORA_MM_DEVICE_NODE, O_RDWR), ENXIO);
    CHECK(close(device) == 0);
}

/* Says when it is ready, and finds the controller gone within ten seconds. */
static void outlives(void)
{
    int device = open_device(), i;
    TMMInitOption option = MM_CONSTRUCT_DEFAULT_MCT;

    puts("ready");
    fflush(stdout);
    for (i = 0; i < 1000 && ioctl(device, MM_CMD_ENTRY, &option) == 0; ++i)
        usleep(10000);
    FAILS(ioctl(device, MM_CMD_ENTRY, &option), ENODEV);
}

/* Asks for one thing of each kind, for a record; prints the manager's answer to one of them. */
static void one_of_each(void)
{
    int device = open_device(), uncached = open(VELMORA_MM_DEVICE_NODE, O_RDWR | O_SYNC);
    U32 segment = started_with_segment(device);
    TAddr block = allocate(device, segment, 2 * BLOCK, 5);
    TGetMSTInfo entry = {.hubHandle = (U8)segment};
    char* memory = mmap(NULL, 2 * PAGE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);

    map_at(device, block, BLOCK);
    map_at(uncached, block + BLOCK, 100);
    CHECK(munmap(memory + PAGE, PAGE) == 0);
    memset(memory + PAGE - 7, 0x11, 7);
    FAILS(ioctl(device, MM_CMD_FREE, memory + PAGE - 7), EFAULT);
    FAILS(ioctl(device, MM_CMD_FREE, NULL), EFAULT);
    CHECK(ioctl(device, 0x5399, NULL) == 0);
    CHECK(ioctl(device, MM_CMD_GET_MST, &entry) == 0);
    printf("%u %u 0x%x\n", entry.SegTable.ulTotalBlkNum, entry.SegTable.ulTotalAllocBlkNum, block);
}

static const struct {
    const char* name;
    void (*run)(void);
} cases[] = {
    {"answers", answers},
    {"faults", faults},
    {"transfers", transfers},
    {"mappings", mappings},
    {"opening", ways_to_open},
    {"streams", streams},
    {"reopened-streams", reopened_streams},
    {"links", links},
    {"paths", paths},
    {"mapped-memory", mapped_memory},
    {"status", status_of_node},
    {"copies", copies},
    {"forks", forks},
    {"programs", programs},
    {"threads", threads},
    {"signals", signals},
    {"closing", closes_everything},
    {"messages", messages},
    {"untouched", untouched},
    {"refused-mappings", refused_mappings},
    {"stops", stops},
    {"outlives", outlives},
    {"one-of-each", one_of_each},
};

static const struct {
    const char* name;
    void (*run)(char**);
    int arguments;
} cases_with_arguments[] = {{"inherited", inherited, 3}, {"share", share, 1}, {"take", take, 2}};

int main(int count, char** arguments)
{
    size_t i;

    self = "/proc/self/exe";
    for (i = 0; count == 2 && i < sizeof cases / sizeof cases[0]; ++i)
        if (strcmp(cases[i].name, arguments[1]) == 0) {
            cases[i].run();
            return 0;
        }
    for (i = 0; i < sizeof cases_with_arguments / sizeof cases_with_arguments[0]; ++i)
        if (count == 2 + cases_with_arguments[i].arguments && strcmp(cases_with_arguments[i].name, arguments[1]) == 0) {
            cases_with_arguments[i].run(arguments + 2);
            return 0;
        }
    fprintf(stderr, "usage: program CASE\n");
    return 2;
}
