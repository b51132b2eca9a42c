// Session scripts: what is understood, what is answered, how a session ends.
#include <sstream>

#include "controller/session.h"
#include "controller/session_text.h"
#include "support/manager_fixture.h"

namespace velmora::test {
namespace {

using sim::SessionEnd;

struct Session {
    explicit Session(const std::string& script)
    {
        std::istringstream in(script);
        std::ostringstream out;
        end = sim::runSession(in, out);
        answers = out.str();
    }
    SessionEnd end;
    std::string answers;
};

TEST(SessionScript, BlankLinesAndCommentsGetNoAnswer)
{
    const Session session("# nothing\n\n   \nlocks # what is held\r\n");
    EXPECT_EQ(session.end, SessionEnd::Understood);
    EXPECT_EQ(session.answers, "= search=0 free=0 push=0 pop=0\n");
}

TEST(SessionScript, LinesThatAreNotUnderstoodEndTheSession)
{
    const char* const lines[] = {
        "jump",                      // unknown command
        "\"load\"",                  // a text is no command
        "load 95000000",             // a text is wanted
        "load \"95000000",           // no closing quote
        "load \"a\" b",              // too much
        "load \"\\q\"",              // unknown escape
        "load \"\\x4\"",             // half an escape
        "load \"\\",                 // ends inside an escape
        "unload now",                //
        "ioctl 0x5300",              // the argument is missing
        "ioctl 0x5300 {0",           // no closing brace
        "ioctl 0x5300 {000}",        // odd number of digits
        "ioctl 0x5300 {}",           // no bytes
        "ioctl 0x5300 {0g}",         //
        "ioctl 010 0",               // leading zero
        "ioctl 0x 0",                // no digits
        "ioctl 5a 0",                // not decimal
        "ioctl -1 0",                //
        "ioctl 0x100000000 0",       // more than 32 bits
        "ioctl 4294967296 0",        //
        "mmap 0x95400000",           //
        "mmap 0x95400000 0",         // lengths are at least 1
        "mmap 0x95400000 1 async",   //
        "read",                      //
        "proc 0",                    //
        "call MM_None",              // unknown function
        "call MM_SearchBlock 5 1 0", // private
        "call MM_GetTotBlk",         // too few
        "call MM_GetTotBlk 1 2",     // too many
        "peek 0x94000000 0",         //
        "poke 0x94000000",           //
        "poke 0x94000000 123",       //
        "fill 0x94000000 1 256",     // no byte
        "crc 0x94000000 0",          //
        "locks all",                 //
        "dump all",                  //
    };
    for (const char* const line : lines) {
        const Session session(std::string("locks\n") + line + "\nlocks\n");
        EXPECT_EQ(session.end, SessionEnd::NotUnderstood) << line;
        EXPECT_TRUE(session.answers.starts_with("= search=0 free=0 push=0 pop=0\n! line 2: ")) << session.answers;
        EXPECT_EQ(std::count(session.answers.begin(), session.answers.end(), '\n'), 2) << session.answers;
    }
}

TEST(SessionScript, MemoryCommands)
{
    const Session session("poke 0x10000000 0aFf\npeek 268435456 3\nfill 0xa3ffffff 1 7\npeek 0xa3ffffff 1\n"
                          "peek 0xa3ffffff 2\npoke 0xa3ffffff 0102\npeek 0xa3ffffff 1\nfill 0x93ffffff 2 0\ncrc 0 1\n"
                          "poke 0x10000100 313233343536373839\ncrc 0x10000100 9\n");
    EXPECT_EQ(session.answers,
              "= 0\n= 0aff00\n= 0\n= 07\n= fault\n= fault\n= 07\n= fault\n= fault\n= 0\n= 0xcbf43926\n");
}

TEST(SessionScript, TheParameterIsKeptTo17CharactersAndTakesEscapes)
{
    const Session session("load \"95000000-9e000000ffff\"\nload \"9\\x35000000-9e000000\" # again\nload \"#\\\"\"\n");
    EXPECT_EQ(session.end, SessionEnd::Understood);
    EXPECT_EQ(session.answers,
              "log \"****** A : [0x95000000], B : [0x9DF00000], PAGE_OFFSET : [0x94000000] *****\\n\"\n"
              "log \"bigphysares : 0x95100000 ~ 0x9df00000\\n\"\n= 0\n"
              "log \"****** A : [0x95000000], B : [0x9DF00000], PAGE_OFFSET : [0x94000000] *****\\n\"\n"
              "log \"bigphysares : 0x95100000 ~ 0x9df00000\\n\"\n= 0\n"
              "log \"****** A : [0x0], B : [0xFFF00000], PAGE_OFFSET : [0x94000000] *****\\n\"\n"
              "log \"printer_mm_init: \\nCan't get Big Memory Info, so can't install MM Driver !\\n\"\n= -1\n");
}

TEST(SessionScript, TheDumpBeforeALoadShowsTheDefaultTable)
{
    const Session session("dump\n");
    EXPECT_EQ(session.answers, "mem start=0x0 end=0x0 ram=0x0 fixedend=0x0 mctstart=0x0 permptr=0x0 permcount=0\n"
                               "mct 0 id=\"$MCT\" size=0x1000 start=0x0\nmct 1 id=\"$RJL\" size=0x1000 start=0x0\n"
                               "mct 2 id=\"$JCB\" size=0x10000 start=0x0\nmct 3 id=\"$UEV\" size=0x100000 start=0x0\n"
                               "mct 4 id=\"$FIL\" size=0x100000 start=0x0\nfreelist head=0x0 tail=0x0\n= 0\n");
}

TEST(SessionScript, AWaitOnAHeldLockClosesTheSession)
{
    const Session session("load \"95000000-9e000000\"\nioctl 0x5308 {00000000}\nioctl 0x5300 {0000000000000000}\n"
                          "ioctl 0x5301 {424c4b30010100010000010000100000000000000000000000000000}\n"
                          "call MM_FreeBlk 5 0x94000000 1\nlocks\ncall MM_FreeBlk 5 0x94000000 1\nlocks\n");
    EXPECT_EQ(session.end, SessionEnd::Closed);
    EXPECT_TRUE(session.answers.ends_with("= 0x0000000e\n= search=0 free=1 push=0 pop=0\n= hang\n")) << session.answers;
}

TEST(SessionScript, AnAccessToNothingClosesTheSessionAfterItsMessages)
{
    const Session session("call MM_LibEntry 0 0\nlocks\n");
    EXPECT_EQ(session.end, SessionEnd::Closed);
    EXPECT_EQ(session.answers, "= oops 0x00000000\n");

    const Session memset("ioctl 0x5304 {000000000000000001000000}\n");
    EXPECT_EQ(memset.answers, "= oops 0x00000000\n");
}

TEST(SessionScript, AListIsFollowedAsFarAsItMakesSense)
{
    const std::string start = "load \"95000000-9e000000\"\nioctl 0x5308 {00000000}\nioctl 0x5300 {0000000000000000}\n"
                              "ioctl 0x5301 {424c4b30010100000000010000100000000000000000000000000000}\n";
    const Session outside(start + "poke 0x95312000 00000010\ndump\n");
    EXPECT_NE(
        outside.answers.find("run 5 addr=0x95312000 size=0x10 next=0x10000000 back=0x0\nrun 5 stop=0x10000000\n= 0\n"),
        std::string::npos)
        << outside.answers;
    const Session atTheEnd(start + "poke 0x95312000 f8ffffa3\ndump\n"); // a node needs 12 bytes of RAM
    EXPECT_NE(atTheEnd.answers.find("run 5 stop=0xa3fffff8\n"), std::string::npos);
    const Session circle(start + "poke 0x95312000 00203195\ndump\n");
    EXPECT_NE(circle.answers.find("run 5 stop=0x95312000\n"), std::string::npos);
    EXPECT_EQ(std::count(circle.answers.begin(), circle.answers.end(), '\n'),
              100000 + 19); // 7 answer lines before the dump, 11 around the nodes, the stop
}

TEST(SessionScript, AnswersOfCalls)
{
    const Session session("call CM_ShowMCT\ncall CM_IF_GetDefaultMCT\ncall MM_GetBlkBit 64\ncall MM_CheckSumMCT\n"
                          "call MM_GetMST 49 0x10000000\ncall get_bigphysarea 0x10000000\n");
    EXPECT_EQ(session.answers,
              "= void\n= 0x00000001\n= 0x00000006\n= 0x00000001\n= 0x000000ff\n"
              "log \"****** A : [0x0], B : [0xFFF00000], PAGE_OFFSET : [0x94000000] *****\\n\"\n= 0xffffffff\n");
}

TEST(SessionScript, RoutineAddressesReadAsZero)
{
    const Session session("load \"95000000-9e000000\"\nioctl 0x5308 {00000000}\nioctl 0x5300 {0000000000000000}\n"
                          "ioctl 0x5301 {424c4b30010100000000010000100000000000000000000000000000}\n"
                          "call MM_GetMST 5 0x10000000\npeek 0x10000048 8\n");
    EXPECT_TRUE(session.answers.ends_with("= 0x00000000\n= 0000000000000000\n")) << session.answers;
}

TEST(SessionText, Escapes)
{
    const auto words = sim::splitLine("\"a\\n\\r\\t\\\"\\\\\\x00\\xff#\" {00} x#y");
    ASSERT_EQ(words.size(), 3u);
    EXPECT_EQ(words[0].text, std::string("a\n\r\t\"\\\0\xff#", 9));
    EXPECT_EQ(words[1].kind, sim::Word::Kind::Braced);
    EXPECT_EQ(words[2].text, "x");
}

} // namespace
} // namespace velmora::test
