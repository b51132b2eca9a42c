// The subcommand "velmora-mm explain": which lines of a log are the manager's, and what is said of them.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include <nlohmann/json.hpp>

#include "tools/commands.hpp"
#include "tools/log_line.hpp"
#include "tools/messages.hpp"

namespace velmora::test {
namespace {

using tools::MessageCatalogue;

struct Answer {
    int status;
    std::string out, errors;

    bool says(const std::string& text) const { return out.find(text) != out.npos; }
};

Answer explain(const std::string& log, tools::Words words = {})
{
    const std::string path = testing::TempDir() + "explain.log";
    std::ofstream(path, std::ios::binary) << log;
    words.push_back(path);
    std::ostringstream out, errors;
    const int status = tools::explain(words, out, errors);
    std::remove(path.c_str());
    return {status, out.str(), errors.str()};
}

std::string replaced(std::string text, const std::string& what, const std::string& with)
{
    for (std::size_t at = text.find(what); at != text.npos; at = text.find(what, at + with.size()))
        text.replace(at, what.size(), with);
    return text;
}

// A text of the page as a log would have it.
std::string filled(std::string text)
{
    text = replaced(replaced(text, "{file}", "kernel/mm/mm/MM_Lib.cpp"), "{name}", "RIP0");
    text = replaced(text, "{command}", "ioctl MM_CMD_FREE");
    for (std::size_t at = text.find('{'); at != text.npos; at = text.find('{'))
        text.replace(at, text.find('}', at) - at + 1, "17");
    return text;
}

// A value of a message or of a row.
nlohmann::json valueOf(const nlohmann::json& message, const std::string& name)
{
    for (const auto& value : message["values"])
        if (value["name"] == name)
            return value["value"];
    return nullptr;
}

const std::string kFreedTwice = "Assertion failed! (U32)stTemp.pstBlk != stBlkPtr.ulyisl && \"Already Freed Block is "
                                "requested!!\",kernel/mm/mm/MM_FreeBlk.cpp,MM_FreeBlk,line=76";
const std::string kFreedTwiceTitle = "A block is released that is free already\n";
const std::string kNoRoom = "Assertion failed! pstBestFitBlk != NULL && \"There is no available Segment "
                            "Block\",kernel/mm/mm/MM_MST.cpp,MM_InstallSegment,line=109";

TEST(Explain, EveryLineOfThePageIsFoundAsItsEntrys)
{
    const MessageCatalogue& catalogue = MessageCatalogue::own();
    EXPECT_GT(catalogue.entries().size(), 80u);
    for (const auto& [text, entry] : catalogue.texts()) {
        const auto found = catalogue.find(filled(text));
        ASSERT_EQ(found.size(), 1u) << text;
        if (found.front().part != tools::MessagePart::Beginning) {
            EXPECT_EQ(found.front().entry->title, entry->title) << text;
        }
    }
}

TEST(Explain, AMessageIsExplainedWithMeaningStateAndWhatToDo)
{
    const Answer answer = explain(kFreedTwice + "\n");
    EXPECT_EQ(answer.status, tools::kDone);
    EXPECT_TRUE(answer.says(kFreedTwiceTitle + "  line 1: Assertion failed! (U32)stTemp")) << answer.out;
    EXPECT_TRUE(answer.says("\n  from   MM_FreeBlk\n  means  A free run starts at the address")) << answer.out;
    EXPECT_TRUE(answer.says("'free_lock' is held")) << answer.out;
    EXPECT_TRUE(answer.says("\n  do     With a lock: switch the controller off and on.")) << answer.out;
}

TEST(Explain, WhatLogsPutInFrontIsTakenOff)
{
    for (const std::string front :
         {"", "<4>", "[   12.345678] ", "<4>[   12.345678] ", "[   12.345678][  T123] ", "[Sat Nov 21 20:54:55 2026] ",
          "[    3.816847 <    0.000131>] ", "kern  :warn  : [   12.345678] ", "4,339,5140900,-;",
          "Nov 21 20:54:55 board kernel: ", "Nov  1 20:54:55 board kernel: [   12.345678] ",
          "2026-11-21T20:54:55+0000 board kernel: ", "2026-11-21T20:54:55,123456+00:00 ", "kernel: "}) {
        const Answer answer = explain(front + kFreedTwice + "\r\n");
        EXPECT_EQ(answer.status, tools::kDone) << front;
    }
    EXPECT_TRUE(explain("velmora-controller: the simulated controller stopped: ioctl MM_CMD_FREE waits for ever on "
                        "free_lock, which is already held\n")
                    .says("A lock that is held for ever\n"));
}

TEST(Explain, LinesOfOtherProgramsArePassedOver)
{
    for (const std::string& line :
         {"Nov 21 20:54:55 board print[12]: " + kFreedTwice, "print: " + kFreedTwice,
          std::string("usb 1-1: new device"), std::string(74, '='), std::string("printer_mm_init:"), std::string("<>"),
          std::string("[]"), std::string(";"), std::string("\0\1\2", 3)}) {
        const Answer answer = explain("a line\n" + line + "\n");
        EXPECT_EQ(answer.status, tools::kFailed) << line;
        EXPECT_EQ(answer.out, "") << line;
        EXPECT_NE(answer.errors.find("none of the manager's messages is in "), std::string::npos);
        EXPECT_NE(answer.errors.find("(2 lines)\n"), std::string::npos);
    }
    EXPECT_NE(explain("").errors.find("(0 lines)"), std::string::npos);
}

TEST(Explain, TheSameConditionIsToldApartByItsFunction)
{
    const std::string line = "Assertion failed! 0 && \"Inpropriate Option Value!!\",kernel/mm/mm/MM_Lib.cpp,";
    EXPECT_TRUE(explain(line + "MM_Entry,line=33\n").says("An option of the table's construction is unknown\n"));
    EXPECT_TRUE(explain(line + "MM_LibEntry,line=63\n").says("A start option is unknown\n"));
}

TEST(Explain, EachMessageComesOnceInTheOrderOfTheLog)
{
    const std::string log = kNoRoom + "\nusb 1-1: new device\n" + kFreedTwice + "\n" + kNoRoom + "\n";
    const Answer answer = explain(log);
    EXPECT_TRUE(answer.says("No stretch of free memory is large enough\n  2 times, first in line 1: ")) << answer.out;
    EXPECT_TRUE(answer.says(kFreedTwiceTitle + "  line 3: ")) << answer.out;
    EXPECT_LT(answer.out.find("No stretch"), answer.out.find(kFreedTwiceTitle));
    EXPECT_FALSE(answer.says("line 4"));
}

TEST(Explain, AllShowsEachLineAndExplainsTheFirst)
{
    const Answer answer = explain(kNoRoom + "\n" + kNoRoom + "\n", {"--all"});
    EXPECT_TRUE(answer.says("line 1: Assertion failed! pstBestFit")) << answer.out;
    EXPECT_TRUE(answer.says("line 2: Assertion failed! pstBestFit")) << answer.out;
    EXPECT_TRUE(answer.says("\n  No stretch of free memory is large enough, see line 1\n")) << answer.out;
}

TEST(Explain, AMessageOfTwoLinesIsKnownByItsSecond)
{
    const Answer answer = explain("[ 1.5] printer_mm_init: \n[ 1.5] Memory Manager Loading is failed.\n");
    EXPECT_TRUE(answer.says("The device cannot be registered\n  line 2: ")) << answer.out;
    EXPECT_TRUE(explain("4,1,2,-;printer_mm_init: \\x0aMemory Manager Loading is failed.\n")
                    .says("The device cannot be registered\n  line 1: "));
}

TEST(Explain, AMessageThatDoesNotEndItsLineIsFollowedByTheNext)
{
    const Answer answer = explain("[MM] H(5) Push Bef (5) after(8)" + kFreedTwice + "\n");
    EXPECT_TRUE(answer.says("A stack rounds a push up\n")) << answer.out;
    EXPECT_TRUE(answer.says(kFreedTwiceTitle)) << answer.out;
}

// The rows of tests/sessions/start-up-and-one-of-each.answers and of a heap.
const std::string kTable =
    "==============================================================================================\n"
    "                             Display MST                                                     =\n"
    "[S_ID][Hd][Seg Size][BlkSize][TotBNO][TAllocBNO][TFreeBNO][TLargeBNO][VM][StartAdd][EndAddre]=\n"
    " RIP0   5-    ff000-     1000-       ff-        3-       fc-       fc- 1- 95313000- 95412000\n"
    " HEAP  49-   bec000-     2000-      5f6-        1-      5f0-      5f0- 0- 95314000- 95f00000\n"
    "==========================================================================\n";

TEST(Explain, ATableIsOneMessageWithItsRows)
{
    const Answer answer = explain("usb\n" + kTable + "usb\n" + kTable);
    EXPECT_TRUE(answer.says("The segment table was displayed\n  2 times, first in lines 3 to 6\n")) << answer.out;
    EXPECT_TRUE(answer.says("  - name RIP0, handle 5, bytes 1044480, block bytes 4096, blocks 255, allocated\n"
                            "    3, free 252, longest run 252, overflows 1, start 0x95313000, end 0x95412000\n"))
        << answer.out;
    EXPECT_TRUE(answer.says("0x95f00000: free and allocated are not the blocks\n"))
        << answer.out; // 1 + 0x5f0, not 0x5f6
}

TEST(Explain, TablesWithoutRowsAreTablesOfTheirOwn)
{
    const std::string frame(74, '=');
    const std::string empty = kTable.substr(0, kTable.find(" RIP0")) + frame + "\n";
    EXPECT_TRUE(explain(empty + empty).says("  2 times, first in lines 2 to 3\n"));
}

TEST(Explain, ATraceIsATableWithDecimalCounts)
{
    const Answer answer = explain("4,1,2,-;\\x0d\\x0a HP\\x00\\x00      49   0x  bec000       8192     1526           "
                                  "1        1525      1525  0  "
                                  "0x95314000 0x95f00000 0x95312000 0x95314000\n" +
                                      kFreedTwice + "\n",
                                  {"--json"});
    const auto json = nlohmann::json::parse(answer.out);
    EXPECT_EQ(json["messages"][0]["title"], "The segment table was traced");
    const auto& row = json["messages"][0]["rows"][0];
    EXPECT_EQ(valueOf(row, "name"), "HP\\x00\\x00");
    EXPECT_EQ(valueOf(row, "bytes"), 0xbec000);
    EXPECT_EQ(valueOf(row, "blocks"), 1526);
    EXPECT_EQ(valueOf(row, "longest run"), 1525);
    EXPECT_EQ(valueOf(row, "map start"), "0x95312000");
    EXPECT_EQ(json["messages"][1]["line"], 2);
}

TEST(Explain, TheListingForProgramsHasEverything)
{
    const Answer answer = explain(
        "\xff\n" + kNoRoom + "\n" + kNoRoom + "\nVelmora: \xff\nbigphysares : 0x95100000 ~ 0x9df00000\n", {"--json"});
    EXPECT_EQ(answer.status, tools::kDone);
    const auto json = nlohmann::json::parse(answer.out);
    EXPECT_EQ(json["schema"], "velmora-mm explain");
    EXPECT_EQ(json["version"], 1);
    EXPECT_EQ(json["lines"], 5);
    ASSERT_EQ(json["messages"].size(), 2u);
    EXPECT_EQ(json["messages"][0]["count"], 2);
    EXPECT_EQ(json["messages"][0]["line"], 2);
    EXPECT_EQ(json["messages"][0]["text"], kNoRoom);
    EXPECT_EQ(json["messages"][0]["from"], "MM_InstallSegment");
    EXPECT_EQ(json["messages"][0]["state"], "A float handle is used up. Free memory is as it was.");
    EXPECT_EQ(valueOf(json["messages"][1], "start"), "0x95100000");
    const Answer none = explain("nothing\n", {"--json"});
    EXPECT_EQ(none.status, tools::kFailed);
    EXPECT_TRUE(nlohmann::json::parse(none.out)["messages"].empty());
}

TEST(Explain, TheAnswersOfASessionScriptAreALog)
{
    const std::string answers = "log \"" + replaced(kFreedTwice, "\"", "\\\"") + "\\n\"\n= 0\n= oops 0xa4000000\n";
    const Answer answer = explain(answers);
    EXPECT_TRUE(answer.says(kFreedTwiceTitle)) << answer.out;
    EXPECT_TRUE(answer.says("Memory that does not exist\n  line 3: = oops 0xa4000000\n")) << answer.out;
}

TEST(Explain, AFailedCheckOfAnotherVersionIsNamed)
{
    const Answer answer = explain("Assertion failed! ulNew,kernel/mm/mm/MM_New.cpp,MM_New,line=3\n" + kNoRoom + "\n" +
                                  kNoRoom + " and more\n");
    EXPECT_TRUE(answer.says("Failed checks that this version does not know:\n  line 1: Assertion failed! ulNew,"))
        << answer.out;
    EXPECT_TRUE(answer.says("\n  line 3: Assertion failed! pstBestFitBlk")) << answer.out;
}

TEST(Explain, AFileThatCannotBeReadIsOneLine)
{
    std::ostringstream out, errors;
    EXPECT_EQ(tools::explain({"/nonexistent/log"}, out, errors), tools::kFailed);
    EXPECT_EQ(errors.str(), "velmora-mm explain: cannot read /nonexistent/log: No such file or directory\n");
    EXPECT_EQ(tools::explain({"one", "two"}, out, errors), tools::kUnusableArguments);
    EXPECT_EQ(tools::explain({"one", "--device", "unix:/one"}, out, errors), tools::kUnusableArguments);
    EXPECT_EQ(tools::explain({"--device", "unix:/nonexistent/socket"}, out, errors), tools::kNoDevice);
}

TEST(Explain, APageThatIsNotAsItSaysIsRefusedWithItsLine)
{
    const std::string entry =
        "### T\n\n```text\nx {a}\n```\n\n- **From** `F`\n- **Means** m\n- **State** s\n- **Do** d\n";
    EXPECT_EQ(MessageCatalogue(entry).entries().size(), 1u);
    for (const char* missing :
         {"```text\nx {a}\n```\n", "- **State** s\n", "- **Do** d\n", "x {a}\n", "\n- **From** `F`"})
        EXPECT_THROW(MessageCatalogue(replaced(entry, missing, "")), std::runtime_error) << missing;
    try {
        MessageCatalogue(replaced(entry, "- **State** s\n", ""));
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "line 9 of the messages' page: '- **State** ' is missing");
    }
}

} // namespace
} // namespace velmora::test
