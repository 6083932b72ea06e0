// The block device under a path.
#ifndef TARNIX_CHAIN_BLOCK_DEVICE_LOOKUP_H
#define TARNIX_CHAIN_BLOCK_DEVICE_LOOKUP_H

struct fstab;

// The device's file-system table. Null until it is loaded; never released.
extern struct fstab *device_fstab;

// Loads it: "/fstab." and the value of the property "ro.hardware", or else the same name in
// /vendor/etc. False when neither can be read, with a line in the log for each.
bool load_device_fstab();

// Finds the first entry of device_fstab whose mount point is `path` or an ancestor of it, and
// returns the entry's block device; the string belongs to the table. Sets `encryptable` and
// `encrypted` to 0 or 1. Null, with both left as they are, when no entry matches.
//
// `path` is absolute, and mount points are compared with it as text: "/", or one with a "/" at its
// end, is no ancestor of anything.
const char *find_block_device(const char *path, int *encryptable, int *encrypted);

#endif
