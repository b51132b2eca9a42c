// What the commands that ask a device have in common, before there is a device.
#include <gtest/gtest.h>

#include <sstream>

#include <nlohmann/json.hpp>

#include "tools/commands.hpp"
#include "tools/device_command.hpp"

namespace velmora::test {
namespace {

using namespace tools;

// What a command with an argument, an option and a flag makes of its words.
struct Answer {
    int status;
    std::string out, errors;
    std::uint32_t size = 0;
    bool flag = false;
};

Answer ask(const Words& words)
{
    Answer answer{};
    DeviceCommand command("test", "velmora-mm test - for tests\n", deviceNotes("", "  velmora-mm test\n"));
    bool hidden = false;
    command.argument("SIZE", sizeInto(answer.size), "a size");
    command.flag("--flag", answer.flag, "a flag");
    command.flag("--hidden", hidden, "");
    std::ostringstream out, errors;
    answer.status = command.run(words, out, errors, [](Device&) { return kDone; });
    answer.out = out.str();
    answer.errors = errors.str();
    return answer;
}

TEST(DeviceCommand, WordsAreReadBeforeTheDeviceIsOpened)
{
    const Answer answer = ask({"nonsense", "--device", "/dev/none"});
    EXPECT_EQ(answer.status, kUnusableArguments);
    EXPECT_EQ(answer.errors.substr(0, answer.errors.find('\n')),
              "velmora-mm test: 'nonsense' is no number of bytes: a number above 0, below 4G, as 4096, 64K or 8MiB");
}

TEST(DeviceCommand, ADeviceThatIsNotThereHasAnExitStatusOfItsOwn)
{
    const Answer answer = ask({"64K", "--flag", "--device", "/dev/none"});
    EXPECT_EQ(answer.status, kNoDevice);
    EXPECT_EQ(answer.size, 65536U);
    EXPECT_TRUE(answer.flag);
    EXPECT_EQ(answer.errors, "velmora-mm test: cannot open /dev/none: No such file or directory\n");
}

TEST(DeviceCommand, AnotherDriversNodeIsToldApart)
{
    EXPECT_EQ(ask({"1", "--device", "/dev/null"}).errors,
              "velmora-mm test: /dev/null is no device of the memory manager\n");
    EXPECT_EQ(ask({"1", "--device", "/"}).errors, "velmora-mm test: / is no device node\n");
}

TEST(DeviceCommand, AnArgumentMustBeThere)
{
    const Answer answer = ask({});
    EXPECT_EQ(answer.status, kUnusableArguments);
    EXPECT_EQ(answer.errors, "velmora-mm test: SIZE is required\nTry 'velmora-mm test --help'.\n");
}

TEST(DeviceCommand, TheHelpHasExitStatusesAndNoHiddenFlag)
{
    const Answer answer = ask({"--help"});
    EXPECT_EQ(answer.status, kDone);
    EXPECT_NE(answer.out.find("\nexit status: 0 done, 1 refused"), std::string::npos);
    EXPECT_NE(answer.out.find("--device PATH"), std::string::npos);
    EXPECT_NE(answer.out.find("--flag"), std::string::npos);
    EXPECT_EQ(answer.out.find("--hidden"), std::string::npos);
}

TEST(DeviceCommand, EveryCommandHasAHelpWithItsNameAndExitStatuses)
{
    for (const Command& command : commands()) {
        SCOPED_TRACE(command.name);
        std::ostringstream out, errors;
        EXPECT_EQ(command.run({"--help"}, out, errors), kDone);
        EXPECT_EQ(out.str().find("velmora-mm " + std::string(command.name) + " - "), 0U) << out.str();
        EXPECT_NE(out.str().find("\nexit status"), std::string::npos);
        EXPECT_NE(out.str().find("\nexample"), std::string::npos);
        EXPECT_EQ(errors.str(), "");
    }
}

MM_TMMSegInfoWire named(const char* name)
{
    MM_TMMSegInfoWire entry{};
    for (std::size_t i = 0; i < sizeof entry.stInfoFromApp.aubSegID && name[i] != 0; ++i)
        entry.stInfoFromApp.aubSegID[i] = static_cast<MM_U8>(name[i]);
    return entry;
}

TEST(DeviceCommand, ASegmentsWordFindsItAgain)
{
    EXPECT_EQ(segmentWord({5, named("PAGE")}), "PAGE");
    EXPECT_EQ(segmentWord({0, named("$UEV")}), "$UEV");
    EXPECT_EQ(segmentWord({6, named("12")}), "6");   // would be a handle
    EXPECT_EQ(segmentWord({7, named("heap")}), "7"); // would be the heap
    EXPECT_EQ(segmentWord({8, named("a b")}), "8");  // would be two words
    EXPECT_EQ(segmentWord({9, named("-n")}), "9");   // would be an option
    EXPECT_EQ(segmentWord({10, named("")}), "10");
    EXPECT_EQ(segmentWord({11, named("\xfc")}), "11");
    EXPECT_EQ(segmentWord({MM_HEAPHANDLE, std::nullopt}), "heap");
}

TEST(DeviceCommand, AListingOfAnyBytesIsJson)
{
    Json json = listing("test", 3);
    json["name"] = "\xfc";
    std::ostringstream out;
    printListing(out, json);
    EXPECT_EQ(out.str(), "{\n  \"schema\": \"velmora-mm test\",\n  \"version\": 3,\n  \"name\": \"\xef\xbf\xbd\"\n}\n");
}

} // namespace
} // namespace velmora::test
