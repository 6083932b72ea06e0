#ifndef TARNIX_GUARD_DUMP_RESCUE_H
#define TARNIX_GUARD_DUMP_RESCUE_H

#include <stdint.h>

struct device_blocks;
struct initial_block_header;

// Turns the pending dump of `anchor` into files along the chain's links, as the service does in the
// order of the map file: same directories, names, modes and log; then clears its flag, in `anchor`
// and on flash. A chain that breaks off ends it with what there is; that is logged. `n_found`: the
// chain's blocks that were good before; where fewer are, the dump's own files took their places.
//
// False, with a line in the log, when a block cannot be read or the storage did not take the files:
// the dump is still pending, and the chain's blocks must be left alone. `map_path` is for the log
// only.
bool rescue_dump(struct initial_block_header *anchor, struct device_blocks *device,
                 uint64_t n_found, const char *map_path);

#endif
