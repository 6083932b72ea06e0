// What a chain's verdict says to a person, and what to do next.
#ifndef TARNIX_TOOLS_CHAIN_REPORT_H
#define TARNIX_TOOLS_CHAIN_REPORT_H

#include <string>

#include "tools/disk_image.h"

// Where a walk ended, and with which result.
struct chain_finding {
    enum bootside_result result;
    struct bootside_walk walk;
};

// Whether the anchor was read and is one, so that its other fields mean something.
bool has_anchor(const struct chain_finding &finding);

// The anchor's state in a word or two: "no chain", "cleared", "unreadable", "ready" or "dump
// pending".
std::string describe_state(const struct chain_finding &finding);

// Bytes that the data partition must have for what the anchor and the links say, where this copy
// has fewer; else 0. Once the whole partition is known to be here, it is the chain that is wrong.
uint64_t bytes_of_whole_copy(const struct disk_image &image, const struct chain_finding &finding);

// "intact: 16384 blocks of 4096 bytes", or the first fault: position, block, byte in the image,
// expected, found.
std::string describe_verdict(const struct disk_image &image, const struct chain_finding &finding);

// What the user can do about a result that is not bootside_ok. Nothing that would cost a dump that
// may still be there.
std::string next_step(const struct disk_image &image, const struct chain_finding &finding);

// "chain_too_short" and the like: the verdict for a program to read.
const char *result_key(enum bootside_result result);

// "1 file", "2 files".
std::string counted(uint64_t count, const char *noun);

#endif
