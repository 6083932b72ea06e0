// The map file: the ordinary file on the data partition whose blocks carry the chain.
#ifndef TARNIX_CHAIN_MAP_FILE_H
#define TARNIX_CHAIN_MAP_FILE_H

#include <stdint.h>

// The map file where none is named on the command line, and the one that an extraction reads.
extern const char default_map_path[];

// Creates the map file at `path` with exactly `size` bytes, each 0xFF, mode 0660, written in full
// and synced so that every block has its place on the device. 0 on success; -1 after an error,
// which is logged: no room, the file cannot be opened or written, or a size of 0. A failure after
// the check for room leaves what was written so far; an old file of this name is gone then.
int create_file(const char *path, uint64_t size);

#endif
