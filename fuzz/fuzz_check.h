// A check that stays on in every fuzz build and stops the run loudly, so
// that the fuzzer keeps the input that broke it.
#pragma once

#include <stdio.h>
#include <stdlib.h>

#define FUZZ_CHECK(cond)                                                                           \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            fprintf(stderr, "check failed: %s (line %d)\n", #cond, __LINE__);                      \
            abort();                                                                               \
        }                                                                                          \
    } while (0)
