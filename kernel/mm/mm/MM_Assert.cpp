/*
 * MM_Assert - the lines that failed checks print.
 */
#include "MM_Assert.h"

#include "../MM_Platform.h"

void MM_ReportAssertion(const char* pcCondition, const char* pcFile, const char* pcFunction, S32 slLine)
{
    MMP_Print("Assertion failed! %s,%s,%s,line=%d\n", pcCondition, pcFile, pcFunction, slLine);
}

void MM_ReportMessage(const char* pcMessage, const char* pcFile, const char* pcFunction, S32 slLine)
{
    MMP_Print("Assertion failed! %s %s,%s,line=%d\n", pcMessage, pcFile, pcFunction, slLine);
}

void MM_ReportPlace(const char* pcFile, const char* pcFunction, S32 slLine)
{
    MMP_Print("Assertion failed! %s,%s,line=%d\n", pcFile, pcFunction, slLine);
}
