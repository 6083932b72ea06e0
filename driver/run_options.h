// What a run was asked to do.
#ifndef TARNIX_DRIVER_RUN_OPTIONS_H
#define TARNIX_DRIVER_RUN_OPTIONS_H

#include <stdint.h>

struct run_options {
    bool create_mode;      // -a, -s: the map file is checked and made, a pending dump extracted
    bool read_mode;        // -r: the blocks are copied out
    bool test_mode;        // -t: the chain is tested
    uint64_t map_size;     // bytes of a new map file: -a, -c, -s, the last of them
    const char *out_path;  // of -r, null without it
    const char *map_path;  // the positional argument, or the default
};

// Logs the usage, line by line. `argv` is main's.
void help(char *argv[]);

// Reads the command line into `options`, chain_crc (-i) and show_progress. Returns 0; or, after
// logging the usage, 2 for an unknown option or a missing argument.
int parse_options(int argc, char *argv[], struct run_options *options);

#endif
