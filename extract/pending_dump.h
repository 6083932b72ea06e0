// The steps of an extraction before and after the dump's blocks are read.
#ifndef TARNIX_EXTRACT_PENDING_DUMP_H
#define TARNIX_EXTRACT_PENDING_DUMP_H

struct initial_block_header;

// Opens a fresh dump directory for the pending dump of `anchor`, and says so. 0; negative, with a
// line in the log, when there is none to be had.
int begin_extraction(const struct initial_block_header *anchor);

// Ends an extraction whose files are written: puts them on flash, then clears the dump's flag, in
// `anchor` and in misc, and opens the files to everybody. `map_path` is for the log only.
void finish_extraction(struct initial_block_header *anchor, const char *map_path);

#endif
