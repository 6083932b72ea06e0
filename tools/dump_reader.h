// Reads the files of a dump by following the chain's links, in an image that nobody vouches for.
#ifndef TARNIX_TOOLS_DUMP_READER_H
#define TARNIX_TOOLS_DUMP_READER_H

#include <stdint.h>

#include <functional>
#include <string>

#include "bootside/bootside.h"

struct dump_file {
    std::string name;  // as the device would take it from the header: any bytes but NUL
    uint64_t size;     // bytes announced
    uint64_t present;  // bytes found; less than `size` in a file that is cut short
};

// What to do with the files. Each may be left empty.
struct dump_sink {
    std::function<void(const struct dump_file &)> begin;
    std::function<void(const unsigned char *, size_t)> data;
    std::function<void(const struct dump_file &)> end;
};

// What a reader may have to remember of a hostile image is bounded by this.
constexpr uint32_t most_files = 65536;

struct dump_reading {
    // Why the reading ended before the dump's end: a block out of reach, or a file of no bytes
    // (which ends the device's extraction); bootside_ok at the end mark or at the chain's end.
    enum bootside_result stopped;
    // The first wrong CRC met on the way, or bootside_ok. Reading goes on over it, as the device's
    // does, but what follows may come from a wrong block.
    enum bootside_result doubted;
    struct bootside_fault stopped_at;
    struct bootside_fault doubted_at;
    bool too_many;  // stopped after most_files: a stream of nothing but headers, not a dump
    uint32_t files;
    uint32_t cut_short;
};

// Reads the dump from a walk that chain_walk_start has started. Looks at n_blocks blocks at most.
struct dump_reading read_dump_stream(struct bootside_walk *walk, const struct dump_sink &sink);

// Whether the dump was read whole and every link on the way was right.
bool dump_is_whole(const struct dump_reading &reading);

#endif
