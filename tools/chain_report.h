// What a chain's verdict says to a person, and what to do next.
#ifndef TARNIX_TOOLS_CHAIN_REPORT_H
#define TARNIX_TOOLS_CHAIN_REPORT_H

#include <string>

#include "tools/disk_image.h"

// The anchor's state in a word or two: "no chain", "cleared", "ready" or "dump pending".
std::string describe_state(enum bootside_result result, const struct bootside_walk &walk);

// "intact: 16384 blocks of 4096 bytes", or the first fault: position, block, byte in the image,
// expected, found.
std::string describe_verdict(const struct disk_image &image, enum bootside_result result,
                             const struct bootside_walk &walk);

// What the user can do about a result that is not bootside_ok.
std::string next_step(enum bootside_result result);

// "chain_too_short" and the like: the verdict for a program to read.
const char *result_key(enum bootside_result result);

// "1 file", "2 files".
std::string counted(uint64_t count, const char *noun);

#endif
