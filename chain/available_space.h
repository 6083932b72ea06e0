// How much room the data partition has, for a map file and for the files of a dump.
#ifndef TARNIX_CHAIN_AVAILABLE_SPACE_H
#define TARNIX_CHAIN_AVAILABLE_SPACE_H

#include <stdint.h>

// Free bytes, for an unprivileged user, of the file system that holds /data/vendor; 0 when it
// cannot tell. `path` is ignored.
uint64_t get_directory_available_space(const char *path);

#endif
