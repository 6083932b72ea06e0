// Numbered, fixed-size items in the raw partitions misc, mfg, board_info and tool_diag.
//
// The boot side and the factory tools read the same bytes: numbers, offsets and lengths never
// change. Messages go to standard output, not to the log. Not for more than one thread.
#ifndef TARNIX_PARTITIONS_PARTITION_ITEMS_H
#define TARNIX_PARTITIONS_PARTITION_ITEMS_H

#include <stdint.h>

struct initial_block_header;

// Opens the partition of item `mfg_item` for reading and writing, and gives the item's place in it
// in bytes. 0 with the stream left open for the transfers below, which call this themselves: no
// one else can use or close it. -1, with nothing left open, when there is no such item or the
// partition does not open.
int mfg_open(int mfg_item, uint32_t *offset, uint32_t *length);

// Reads or writes one item. Always transfers the item's whole length, so `buf` must be that large.
// `len` is only checked. 0 on success, also when the transfer itself fell short; -EIO when the
// partition cannot be opened or has no such item; -EINVAL when `len` is more than the item's
// length.
int mfg_emmc_read(int mfg_item, void *buf, int len);
int mfg_emmc_write(int mfg_item, const void *buf, int len);

// Puts what was written to the partition of item `mfg_item` on flash. 0 when it is there; -EIO when
// the partition cannot be opened or has no such item, else the negated error of the sync.
int mfg_emmc_sync(int mfg_item);

// Reads or writes the chain's anchor, item 19 of misc. -EINVAL for a null record, else as above.
int MISC_read_RamdumpInitHdr(struct initial_block_header *hdr);
int MISC_write_RamdumpInitHdr(const struct initial_block_header *hdr);

// Writes the anchor, waits until it is on flash, and reads it back. 0 when misc then holds it; else
// negative: -EIO where what was read back differs. The transfers above report no such thing.
int store_anchor(const struct initial_block_header *hdr);

#endif
