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
    bool doubted;      // once it ends: a wrong CRC was met before, so that bytes may be another's
};

// What to do with the files. Each may be left empty, and returns whether to go on reading.
struct dump_sink {
    std::function<bool(const struct dump_file &)> begin;
    std::function<bool(const unsigned char *, size_t)> data;
    std::function<bool(const struct dump_file &)> end;
};

// More than any device writes. It bounds what a reader of a hostile image has to remember, and how
// often pull waits for a file to be on the medium.
constexpr uint32_t most_files = 1024;

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
    bool given_up;  // stopped by the sink
    uint32_t files;
    uint32_t incomplete;  // of them, those that are not whole
};

// Reads the dump from a walk that chain_walk_start or start_reading has started. Looks at each
// block once: a chain that comes back ends the dump.
struct dump_reading read_dump_stream(struct bootside_walk *walk, const struct dump_sink &sink);

// Whether a file that has ended has all of its bytes, with every link up to them right.
bool file_is_whole(const struct dump_file &file);

// Whether there are files, all of them whole, up to the dump's end.
bool dump_is_whole(const struct dump_reading &reading);

#endif
