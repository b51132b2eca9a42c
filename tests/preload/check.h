/* Checks of the test programs, which know nothing but the C library and the wire header. */
#ifndef CHECK_H
#define CHECK_H

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define CHECK(condition)                                                                                  \
    do {                                                                                                  \
        errno = 0;                                                                                        \
        if (!(condition)) {                                                                               \
            fprintf(stderr, "%s:%d: not so: %s (%s)\n", __FILE__, __LINE__, #condition, strerror(errno)); \
            exit(1);                                                                                      \
        }                                                                                                 \
    } while (0)

#define FAILS(call, error) CHECK((call) == -1 && errno == (error))

#endif
