// What the guard looks at: the anchor, the map file and the device under it.
#ifndef TARNIX_GUARD_GUARDED_MAP_H
#define TARNIX_GUARD_GUARDED_MAP_H

#include <limits.h>

#include "chain/format/initial_block_header.h"
#include "guard/device_blocks.h"

struct guarded_map {
    struct initial_block_header anchor;
    char path[PATH_MAX];          // the map file's real path, or where it would be
    const char *device_path;      // of the block device under it; the fstab's
    int file;                     // its descriptor, -1 when there is none
    struct device_blocks device;  // without a buffer when no file system has such blocks
};

// Where the tool's map file may be. The guard deletes no file elsewhere.
extern const char map_directory[];

// Opens the map file and the device under it; `anchor` is filled in already. 0 when they can be
// looked at: a map file that is missing can. -1 with a line in the log. What is opened stays open
// to the end of the process.
int open_guarded_map(const char *map_path, struct guarded_map *map);

#endif
