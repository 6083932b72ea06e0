// The integrity test of the chain (-t).
#ifndef TARNIX_CHAIN_CHAIN_INTEGRITY_H
#define TARNIX_CHAIN_CHAIN_INTEGRITY_H

struct initial_block_header;

// Prints the anchor, then walks the chain on the block device `blkdev` from the anchor's first
// block, checking magics and CRCs, and logs how many blocks it read. `path` is the map file's, as
// the user named it. Changes chain_crc, and nothing on the device.
//
// 0 when the end of the chain was reached, CRC mismatches included; -1 when the file or the device
// cannot be read, -ENOENT at a wrong magic; each with a line in the log. It never returns from a
// chain whose links form a cycle, or from a link to the very end of the device.
int test_block_chain(const char *path, const char *blkdev,
                     const struct initial_block_header *anchor);

#endif
