/*
 * MM_Assert.h - checks: a condition that does not hold is reported with one line on the kernel log, and the function
 * returns. Nothing is undone and nothing is released.
 *
 * Log readers know the lines, so the conditions are printed as they are written in the source: their wording, their
 * spacing and the variable names in them stay.
 */
#ifndef MM_ASSERT_H
#define MM_ASSERT_H

#include <velmora_mm/velmora_mm.h>

/* The source path as it is printed: relative to the repository, whatever folder the build ran in. */
constexpr const char* MM_SourcePath(const char* pcFile)
{
    constexpr char acRoot[] = "kernel/mm/";
    const char* pcFound = pcFile;
    for (const char* pc = pcFile; *pc != '\0'; ++pc) {
        U32 ulSame = 0;
        while (acRoot[ulSame] != '\0' && pc[ulSame] == acRoot[ulSame])
            ++ulSame;
        if (acRoot[ulSame] == '\0')
            pcFound = pc;
    }
    return pcFound;
}

extern "C" {
/* The report of a failed check, one line each: with the condition's text, with a plain message, with neither. */
void MM_ReportAssertion(const char* pcCondition, const char* pcFile, const char* pcFunction, S32 slLine);
void MM_ReportMessage(const char* pcMessage, const char* pcFile, const char* pcFunction, S32 slLine);
void MM_ReportPlace(const char* pcFile, const char* pcFunction, S32 slLine);
}

/* Conditions are printed as they are written, so they keep comparisons that a compiler finds odd (an
 * unsigned value at or above 0). */
#define MM_PRINTED_CONDITION(condition)                                                \
    _Pragma("GCC diagnostic push") _Pragma("GCC diagnostic ignored \"-Wtype-limits\"") \
        _Pragma("GCC diagnostic ignored \"-Wsign-compare\"") if (!(condition)) _Pragma("GCC diagnostic pop")

/* When the condition does not hold, reports its text as a check of the function named (a string) and returns the
 * value (none: void). Nothing is undone. Helpers name the entry that they work for. */
#define MM_ASSERT_FOR(pcFunction, condition, ...)                                          \
    do {                                                                                   \
        MM_PRINTED_CONDITION(condition)                                                    \
        {                                                                                  \
            MM_ReportAssertion(#condition, MM_SourcePath(__FILE__), pcFunction, __LINE__); \
            return __VA_ARGS__;                                                            \
        }                                                                                  \
    } while (0)

/* The same in the entry itself. Not by way of MM_ASSERT_FOR: a condition that is handed on has its own macros expanded,
 * and would be printed so. */
#define MM_ASSERT(condition, ...)                                                        \
    do {                                                                                 \
        MM_PRINTED_CONDITION(condition)                                                  \
        {                                                                                \
            MM_ReportAssertion(#condition, MM_SourcePath(__FILE__), __func__, __LINE__); \
            return __VA_ARGS__;                                                          \
        }                                                                                \
    } while (0)

/* The same with a sentence in place of the condition's text. */
#define MM_ASSERT_MESSAGE(condition, pcMessage, ...)                                  \
    do {                                                                              \
        if (!(condition)) {                                                           \
            MM_ReportMessage(pcMessage, MM_SourcePath(__FILE__), __func__, __LINE__); \
            return __VA_ARGS__;                                                       \
        }                                                                             \
    } while (0)

/* The same without any text. */
#define MM_ASSERT_SILENT(condition, ...)                                 \
    do {                                                                 \
        if (!(condition)) {                                              \
            MM_ReportPlace(MM_SourcePath(__FILE__), __func__, __LINE__); \
            return __VA_ARGS__;                                          \
        }                                                                \
    } while (0)

#endif
