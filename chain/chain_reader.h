// Copies the chain's blocks out, as the block device holds them.
#ifndef TARNIX_CHAIN_CHAIN_READER_H
#define TARNIX_CHAIN_CHAIN_READER_H

// Writes every whole block of the map file `file`, read from the block device `blkdev` in the order
// of the file, headers included, to the new file `outfile`. 0 on success; -1 when one of the three
// cannot be used, -ENOENT when the space cannot be measured, -ESRCH when the space test refuses;
// each with a line in the log. The space test looks at the file system that holds the device's
// node, not at the one that takes `outfile`, and refuses when it has more blocks free than are to
// be copied.
int raw_read_blocks(const char *file, const char *blkdev, const char *outfile);

#endif
