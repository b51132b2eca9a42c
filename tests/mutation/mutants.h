/* What make_mutants.py writes into the copy of the sources: is this the change that the run has chosen? Included in front of every
 * source of that copy. */
#pragma once

extern "C" {
extern unsigned velmoraMutant;         /* 0: none */
extern unsigned char velmoraReached[]; /* by number: somebody has asked */
}

static inline bool velmoraIsMutant(unsigned number)
{
    velmoraReached[number] = 1;
    return velmoraMutant == number;
}

#define VM(number) velmoraIsMutant(number)
/* In functions that a compiler may evaluate. */
#define VMC(number) (__builtin_is_constant_evaluated() ? false : velmoraIsMutant(number))
