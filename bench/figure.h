// How the tools of this folder print: a line for each figure, and beside it the limit, that is what the least
// program that can do the same work comes to.
#pragma once

#include <cstdio>

#include "race.h"

inline void print_head() {
    std::puts("| work | measured as | median | quartiles | limit |\n|---|---|---:|---:|---:|");
}

inline void print_figure(const char *work, const char *unit, const emulator::Spread &spread,
                         const char *limit) {
    std::printf("| %s | %s | %.3g | %.3g to %.3g | %s |\n", work, unit, spread.median, spread.low,
                spread.high, limit);
    std::fflush(stdout);
}
