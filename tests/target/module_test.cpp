// Load and unload, the device's registration, the proc file, read and write.
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "board.hpp"
#include "harness.hpp"
#include "kernel_log.hpp"

using namespace target;

namespace {

std::string areaLine(std::uint32_t a, std::uint32_t b)
{
    char line[128];
    std::snprintf(line, sizeof line, "****** A : [0x%X], B : [0x%X], PAGE_OFFSET : [0x%X] *****", a, b,
                  board().pageOffset);
    return line;
}

std::string managedLine(std::uint32_t start, std::uint32_t end)
{
    char line[64];
    std::snprintf(line, sizeof line, "bigphysares : 0x%08x ~ 0x%08x", start, end);
    return line;
}

const char kRefusal[] = "printer_mm_init: \nCan't get Big Memory Info, so can't install MM Driver !";

// The kernel's own remarks about a module that is not its own are none of the manager's.
Lines withoutTaintRemarks(Lines lines)
{
    std::erase_if(lines, [](const std::string& line) {
        return line.find("taint") != line.npos || line.find("module verification failed") != line.npos;
    });
    return lines;
}

void refuses(const std::string& parameters, std::uint32_t a, std::uint32_t reducedB)
{
    needNoManager();
    KernelLog log;
    CHECK_EQUAL(loadModule(kModuleFile, parameters), -EPERM);
    CHECK_LOGGED(withoutTaintRemarks(log.take()), (Lines{areaLine(a, reducedB), kRefusal}));
    CHECK(!moduleLoaded(kModuleName));
    CHECK(!deviceMajor());
    CHECK(access("/proc/velmora_mm", F_OK) != 0);
}

} // namespace

TARGET_TEST(module_information_describes_the_parameter_and_has_an_empty_licence)
{
    const std::string module = readFile(kModuleFile);
    const auto holds = [&](const std::string& tag) { return module.find(tag + '\0') != module.npos; };
    CHECK(holds("parm=bigphysarea:Given BigPhysArea"));
    CHECK(holds("parmtype=bigphysarea:string"));
    CHECK(holds("license="));
}

TARGET_TEST(load_without_parameter_is_refused)
{
    refuses("", 0, 0xFFF00000);
}

TARGET_TEST(load_with_a_text_that_is_no_area_is_refused)
{
    refuses("bigphysarea=none", 0, 0xFFF00000);
}

TARGET_TEST(load_with_the_start_alone_takes_the_wrapped_end)
{
    needNoManager();
    KernelLog log;
    CHECK_EQUAL(loadModule(kModuleFile, "bigphysarea=" + areaText(board().areaStart(), 0).substr(0, 9)), 0);
    CHECK_LOGGED(withoutTaintRemarks(log.take()),
                 (Lines{areaLine(board().areaStart(), 0xFFF00000), managedLine(board().managedStart(), 0xFFF00000)}));
    CHECK_EQUAL(unloadModule(kModuleName), 0);
}

TARGET_TEST(load_with_a_start_at_page_offset_is_refused)
{
    refuses("bigphysarea=" + areaText(board().pageOffset, board().pageOffset + 0x2000000), board().pageOffset,
            board().pageOffset + 0x1F00000);
}

TARGET_TEST(load_with_an_end_that_shrinks_to_page_offset_is_refused)
{
    refuses("bigphysarea=" + areaText(board().areaStart(), board().pageOffset + 0x100000), board().areaStart(),
            board().pageOffset);
}

TARGET_TEST(load_with_a_text_of_18_characters_is_refused_by_the_kernel)
{
    needNoManager();
    KernelLog log;
    CHECK_EQUAL(loadModule(kModuleFile, std::string("bigphysarea=") + board().areaText() + "0"), -ENOSPC);
    for (const std::string& line : log.take())
        CHECK(line.find("A : [") == line.npos);
}

TARGET_TEST(load_over_the_reserved_area_prints_both_lines_and_registers)
{
    needNoManager();
    KernelLog log;
    CHECK_EQUAL(loadModule(kModuleFile, std::string("bigphysarea=") + board().areaText()), 0);
    CHECK_LOGGED(withoutTaintRemarks(log.take()), (Lines{areaLine(board().areaStart(), board().managedEnd()),
                                                         managedLine(board().managedStart(), board().managedEnd())}));
    CHECK(deviceMajor().has_value());
    CHECK(access("/sys/module/velmora_mm/parameters/bigphysarea", F_OK) != 0);
    CHECK_EQUAL(loadModule(kModuleFile, std::string("bigphysarea=") + board().areaText()), -EEXIST);
}

// Nobody may open the device then: the code behind it is gone.
TARGET_TEST(load_without_its_proc_file_is_refused_and_leaves_the_device)
{
    needNoManager();
    std::optional<unsigned> left;
    int result;
    Lines lines;
    {
        const FixedAnswer refused(kernelIsBefore(3, 10)   ? "create_proc_entry"
                                  : kernelIsBefore(4, 18) ? "proc_create_data"
                                                          : "proc_create",
                                  0);
        KernelLog log;
        result = loadModule(kModuleFile, std::string("bigphysarea=") + board().areaText());
        lines = log.take();
        left = deviceMajor();
    }
    const bool loaded = moduleLoaded(kModuleName);
    if (left && !loaded)
        removeLeftDevice(*left);
    CHECK_EQUAL(result, -EPERM);
    CHECK_LOGGED(withoutTaintRemarks(lines),
                 (Lines{areaLine(board().areaStart(), board().managedEnd()),
                        managedLine(board().managedStart(), board().managedEnd()), "\nCan't make a proc file!!!"}));
    CHECK(!loaded);
    CHECK(left.has_value());
    CHECK(access("/proc/velmora_mm", F_OK) != 0);
    CHECK(!deviceMajor());
    needManager();
    CHECK(deviceMajor() == left); // free again
}

TARGET_TEST(unload_is_refused_while_the_device_is_open)
{
    needManager();
    {
        const Descriptor device;
        CHECK_EQUAL(unloadModule(kModuleName), -EAGAIN);
    }
    CHECK(moduleLoaded(kModuleName));
}

TARGET_TEST(unload_while_idle_prints_nothing_and_removes_device_and_proc_file)
{
    needManager();
    KernelLog log;
    CHECK_EQUAL(unloadModule(kModuleName), 0);
    CHECK_LOGGED(log.take(), Lines());
    CHECK(!moduleLoaded(kModuleName));
    CHECK(!deviceMajor());
    CHECK(access("/proc/velmora_mm", F_OK) != 0);
}

TARGET_TEST(reload_works_repeatedly_and_starts_with_an_empty_manager)
{
    for (int round = 0; round < 5; ++round) {
        needNoManager();
        needManager();
        const Descriptor device;
        TGetMCTInfo row = {};
        CHECK_EQUAL(device.command(MM_CMD_GET_MCT, row), 0);
        CHECK_EQUAL(row.SegTable.pubStartAddr, 0u);
        TMMInitOption option = MM_CONSTRUCT_DEFAULT_MCT;
        CHECK_EQUAL(device.command(MM_CMD_ENTRY, option), 0);
        CHECK_EQUAL(device.command(MM_CMD_GET_MCT, row), 0);
        CHECK_EQUAL(row.SegTable.pubStartAddr, board().managedStart());
    }
}

TARGET_TEST(proc_file_holds_one_character_at_offset_0_and_nothing_at_1)
{
    needManager();
    struct stat status = {};
    CHECK_EQUAL(stat("/proc/velmora_mm", &status), 0);
    CHECK_EQUAL(status.st_mode & 07777, 0600u);
    const int file = open("/proc/velmora_mm", O_RDONLY);
    CHECK(file >= 0);
    char text[16] = {};
    for (int twice = 0; twice < 2; ++twice) {
        CHECK_EQUAL(pread(file, text, sizeof text, 0), 1);
        CHECK_EQUAL(text[0], '1');
        CHECK_EQUAL(pread(file, text, sizeof text, 1), 0);
        CHECK_EQUAL(pread(file, text, sizeof text, 100), 0);
        CHECK_EQUAL(pread(file, text, 0, 0), 0);
    }
    CHECK_EQUAL(read(file, text, 1), 1); // from the start, then from where that ended
    CHECK_EQUAL(read(file, text, 1), 0);
    CHECK_EQUAL(lseek(file, 0, SEEK_SET), 0);
    CHECK_EQUAL(read(file, text, sizeof text), 1);
    close(file);
    CHECK(open("/proc/velmora_mm", O_WRONLY) < 0 || write(file, "0", 1) < 0);
}

TARGET_TEST(device_read_and_write_answer_enosys)
{
    needManager();
    const Descriptor device;
    char bytes[16] = {};
    for (const std::size_t count : {std::size_t(0), std::size_t(1), sizeof bytes}) {
        errno = 0;
        CHECK_EQUAL(read(device.number(), bytes, count), -1);
        CHECK_EQUAL(errno, ENOSYS);
        errno = 0;
        CHECK_EQUAL(write(device.number(), bytes, count), -1);
        CHECK_EQUAL(errno, ENOSYS);
    }
}

TARGET_TEST(every_minor_opens_the_same_device)
{
    needManager();
    const std::optional<unsigned> major = deviceMajor();
    CHECK(major.has_value());
    for (const unsigned minor : {1u, 255u}) {
        unlink("/dev/other");
        CHECK_EQUAL(mknod("/dev/other", S_IFCHR | 0600, *major << 8 | minor), 0);
        const Descriptor device(0, "/dev/other");
        CHECK_EQUAL(device.commandAt(0x53FF, 0), 0);
    }
    unlink("/dev/other");
}
